// Real peer programs, started as child processes on loopback and stopped by pid.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/types.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace vektest {

// A loopback port the system handed out (bound to 0, then released).
int free_tcp_port();
// The same for UDP.
int free_udp_port();

// 127.0.0.1:port as a socket address.
inline sockaddr_in loopback_sockaddr(int port) {
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_port = htons(static_cast<uint16_t>(port));
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return sin;
}

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

// Runs a command (killed after timeout_ms) with input_text on standard input,
// appends standard output to *out; its exit status, or -1.
int run_program(const std::vector<std::string>& argv, std::string* out = nullptr,
                const std::string& input_text = "", int timeout_ms = 60000);

// The vekutil tool in the build tree (build/tools/), or "" when not built there.
std::string tool_path();

}  // namespace vektest
