// Real peer programs for network tests: servers and clients from Debian
// (proxies, FTP and HTTP servers, openssl, sqlite3, ...) started as child
// processes on loopback and stopped by their process id.
#pragma once

#include <sys/types.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace vektest {

// A loopback TCP port the system handed out just now (bound to port 0, then
// released). Another process could take it before the caller binds it, which
// on a test machine is rare enough to accept.
int free_tcp_port();
// The same for UDP.
int free_udp_port();

// True when the program is on PATH (or is an executable path).
bool have_program(const std::string& name);

// A child process. Its standard output and error go to log_path (or are
// discarded); standard input is /dev/null unless a text is given to start().
class PeerProcess {
 public:
  PeerProcess() = default;
  ~PeerProcess() { stop(); }
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  // Starts argv[0] (looked up on PATH) with the given arguments; false if
  // the process could not be started. extra_env holds "NAME=value" entries.
  bool start(const std::vector<std::string>& argv, const std::string& log_path = "",
             const std::vector<std::string>& extra_env = {}, const std::string& working_dir = "");
  // Waits up to timeout_ms until something accepts on 127.0.0.1:port.
  bool wait_tcp_port(int port, int timeout_ms = 10000) const;
  // Waits up to timeout_ms for the process to end by itself; the exit status
  // (as from waitpid) goes to *status. False if it is still running.
  bool wait_exit(int timeout_ms, int* status = nullptr);
  // SIGTERM, then SIGKILL after grace_ms; reaps the child. Safe to repeat.
  void stop(int grace_ms = 3000);
  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// Runs a command to completion (at most timeout_ms, then it is killed) and
// returns its exit status, or -1 if it could not run or timed out. Standard
// output is appended to *out when given; standard input is input_text.
int run_program(const std::vector<std::string>& argv, std::string* out = nullptr,
                const std::string& input_text = "", int timeout_ms = 60000);

// The vekutil tool beside the test binaries in the build tree (build/tools/
// for build/tests/), or "" when it is not built there (the sanitizer builds).
std::string tool_path();

}  // namespace vektest
