#include "peer.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

namespace vektest {
namespace {

int free_port(int type) {
  int fd = socket(AF_INET, type, 0);
  if (fd < 0) return -1;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  int port = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
    port = ntohs(addr.sin_port);
  close(fd);
  return port;
}

std::vector<char*> c_argv(const std::vector<std::string>& argv) {
  std::vector<char*> out;
  for (const std::string& a : argv) out.push_back(const_cast<char*>(a.c_str()));
  out.push_back(nullptr);
  return out;
}

// In the child: wires up the standard streams and executes argv. Never returns.
[[noreturn]] void exec_child(const std::vector<std::string>& argv, int stdin_fd, int stdout_fd,
                             const std::vector<std::string>& extra_env, const std::string& working_dir) {
  setpgid(0, 0);
  if (stdin_fd >= 0) dup2(stdin_fd, 0);
  if (stdout_fd >= 0) {
    dup2(stdout_fd, 1);
    dup2(stdout_fd, 2);
  }
  for (const std::string& e : extra_env) putenv(const_cast<char*>(e.c_str()));
  if (!working_dir.empty() && chdir(working_dir.c_str()) != 0) _exit(126);
  std::vector<char*> args = c_argv(argv);
  execvp(args[0], args.data());
  _exit(127);
}

using Clock = std::chrono::steady_clock;

}  // namespace

int free_tcp_port() { return free_port(SOCK_STREAM); }
int free_udp_port() { return free_port(SOCK_DGRAM); }

bool have_program(const std::string& name) {
  if (name.find('/') != std::string::npos) return access(name.c_str(), X_OK) == 0;
  const char* path = getenv("PATH");
  std::istringstream dirs(std::string(path ? path : "/usr/bin:/bin") + ":/usr/sbin:/sbin:/usr/local/sbin");
  for (std::string dir; std::getline(dirs, dir, ':');)
    if (access((dir + "/" + name).c_str(), X_OK) == 0) return true;
  return false;
}

bool PeerProcess::start(const std::vector<std::string>& argv, const std::string& log_path,
                        const std::vector<std::string>& extra_env, const std::string& working_dir) {
  stop();
  if (argv.empty()) return false;
  int out_fd = open(log_path.empty() ? "/dev/null" : log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  int in_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  pid_t pid = fork();
  if (pid == 0) exec_child(argv, in_fd, out_fd, extra_env, working_dir);
  if (out_fd >= 0) close(out_fd);
  if (in_fd >= 0) close(in_fd);
  if (pid < 0) return false;
  pid_ = pid;
  return true;
}

bool PeerProcess::wait_tcp_port(int port, int timeout_ms) const {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (Clock::now() < deadline) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    close(fd);
    if (ok) return true;
    if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == pid_) return false;  // died while starting
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

bool PeerProcess::wait_exit(int timeout_ms, int* status) {
  if (pid_ <= 0) return true;
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    int st = 0;
    pid_t r = waitpid(pid_, &st, WNOHANG);
    if (r == pid_ || (r < 0 && errno == ECHILD)) {
      if (status) *status = st;
      pid_ = -1;
      return true;
    }
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void PeerProcess::stop(int grace_ms) {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  if (!wait_exit(grace_ms)) {
    kill(pid_, SIGKILL);
    wait_exit(10000);
  }
  pid_ = -1;
}

int run_program(const std::vector<std::string>& argv, std::string* out, const std::string& input_text,
                int timeout_ms) {
  if (argv.empty()) return -1;
  int in_pipe[2], out_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) != 0) return -1;
  if (pipe2(out_pipe, O_CLOEXEC) != 0) {
    close(in_pipe[0]);
    close(in_pipe[1]);
    return -1;
  }
  pid_t pid = fork();
  if (pid == 0) {
    dup2(in_pipe[0], 0);
    dup2(out_pipe[1], 1);
    std::vector<char*> args = c_argv(argv);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(in_pipe[0]);
  close(out_pipe[1]);
  if (pid < 0) {
    close(in_pipe[1]);
    close(out_pipe[0]);
    return -1;
  }
  signal(SIGPIPE, SIG_IGN);
  size_t written = 0;
  int in_fd = in_pipe[1];
  if (input_text.empty()) {
    close(in_fd);
    in_fd = -1;
  } else {
    fcntl(in_fd, F_SETFL, O_NONBLOCK);
  }
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  bool timed_out = false;
  char buf[65536];
  for (;;) {
    pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {in_fd, POLLOUT, 0}};
    int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
    if (left <= 0) {
      timed_out = true;
      break;
    }
    if (poll(fds, in_fd >= 0 ? 2 : 1, left) < 0 && errno != EINTR) break;
    if (in_fd >= 0 && (fds[1].revents & (POLLOUT | POLLERR | POLLHUP))) {
      ssize_t n = write(in_fd, input_text.data() + written, input_text.size() - written);
      if (n > 0) written += static_cast<size_t>(n);
      if (n < 0 || written == input_text.size()) {
        close(in_fd);
        in_fd = -1;
      }
    }
    if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
      ssize_t n = read(out_pipe[0], buf, sizeof(buf));
      if (n <= 0) break;
      if (out) out->append(buf, static_cast<size_t>(n));
    }
  }
  if (in_fd >= 0) close(in_fd);
  close(out_pipe[0]);
  if (timed_out) kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  if (timed_out || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

std::string tool_path() {
  char path[4096] = {};
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  const std::string exe(path, n > 0 ? static_cast<size_t>(n) : 0);
  const std::string tool = exe.substr(0, exe.find_last_of('/')) + "/../tools/vekutil";
  return access(tool.c_str(), X_OK) == 0 ? tool : "";
}

}  // namespace vektest
