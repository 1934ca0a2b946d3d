// Shared pieces of the FTP server tests: a fixture that runs a server on a
// scratch root with four accounts, a raw control-connection client for
// checking exact reply texts, and helpers for the real client programs.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vekutil/vekutil.h>

#include "peer.hpp"
#include "vek_test.hpp"

namespace ftptest {

// Accounts: the user name is the access level's name, the password "pw".
inline int accounts(const char* user, const char* password, const char*) {
  if (std::strcmp(password, "pw") != 0) return 0;
  if (!std::strcmp(user, "reader")) return FTP_ACCESS_READ;
  if (!std::strcmp(user, "writer")) return FTP_ACCESS_WRITE;
  if (!std::strcmp(user, "admin")) return FTP_ACCESS_ALL;
  if (!std::strcmp(user, "negative")) return -1;
  return 0;
}

// What the after-command callback saw.
struct Seen {
  std::string address, user, command, line, directory;
  int result;
};

inline std::mutex g_seen_mutex;
inline std::vector<Seen> g_seen;

inline void record(const void* client, const char* command, const char* line, int result) {
  std::lock_guard<std::mutex> guard(g_seen_mutex);
  g_seen.push_back({ftp_server_client_address(client), ftp_server_client_username(client), command, line,
                    ftp_server_client_directory(client), result});
}

inline std::vector<Seen> seen() {
  std::lock_guard<std::mutex> guard(g_seen_mutex);
  return g_seen;
}

// 127.0.0.1:port, or another loopback address.
inline sockaddr_in loopback(int port, const char* ip = "127.0.0.1") {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = inet_addr(ip);
  return addr;
}

// A TCP connection to 127.0.0.1:port, made from the address from when given; -1 on failure.
inline int connect_loopback(int port, const char* from = nullptr) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in source = loopback(0, from ? from : "127.0.0.1");
  sockaddr_in target = loopback(port);
  if ((from && bind(fd, reinterpret_cast<sockaddr*>(&source), sizeof source) != 0) ||
      connect(fd, reinterpret_cast<sockaddr*>(&target), sizeof target) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// A listening socket on a loopback port the system picks; the port goes to *port.
inline int listen_loopback(int* port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr = loopback(0);
  socklen_t size = sizeof addr;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 1) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size) != 0) {
    close(fd);
    return -1;
  }
  *port = ntohs(addr.sin_port);
  return fd;
}

// A raw control connection: one line out, one reply line in.
class Control {
 public:
  explicit Control(int port) : fd_(connect_loopback(port)) {
    int one = 1;
    if (fd_ >= 0) setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (fd_ >= 0) greeting_ = line();
  }
  ~Control() {
    if (fd_ >= 0) close(fd_);
  }
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  bool ok() const { return fd_ >= 0; }
  const std::string& greeting() const { return greeting_; }

  void send_raw(const std::string& bytes) {
    size_t sent = 0;
    while (fd_ >= 0 && sent < bytes.size()) {
      ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
  }

  // The next reply line with its CR LF, "" after timeout_ms, "<closed>" when
  // the server closed the connection.
  std::string line(int timeout_ms = 5000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
      size_t end = pending_.find("\r\n");
      if (end != std::string::npos) {
        std::string out = pending_.substr(0, end + 2);
        pending_.erase(0, end + 2);
        return out;
      }
      int left = static_cast<int>(
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count());
      if (left <= 0) return "";
      pollfd p = {fd_, POLLIN, 0};
      if (poll(&p, 1, left) <= 0) continue;
      char buf[4096];
      ssize_t n = recv(fd_, buf, sizeof buf, 0);
      if (n <= 0) return "<closed>";
      pending_.append(buf, static_cast<size_t>(n));
    }
  }

  // Sends one command line and returns the reply.
  std::string cmd(const std::string& text, int timeout_ms = 5000) {
    send_raw(text + "\r\n");
    return line(timeout_ms);
  }

  bool login(const std::string& user) {
    return cmd("USER " + user) == "331 Password required\r\n" && cmd("PASS pw") == "230 User logged in.\r\n";
  }

 private:
  int fd_ = -1;
  std::string greeting_;
  std::string pending_;
};

// Connects to a passive port announced in a 227 reply; -1 on failure.
inline int connect_passive(const std::string& reply_227) {
  unsigned h1, h2, h3, h4, p1, p2;
  size_t open = reply_227.find('(');
  if (open == std::string::npos ||
      sscanf(reply_227.c_str() + open, "(%u,%u,%u,%u,%u,%u)", &h1, &h2, &h3, &h4, &p1, &p2) != 6)
    return -1;
  return connect_loopback(static_cast<int>(p1 * 256 + p2));
}

// Everything a data connection delivers until the server closes it.
inline std::string read_all(int fd, int timeout_ms = 10000) {
  std::string out;
  char buf[65536];
  for (;;) {
    pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) break;
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return out;
}

// One transfer over a fresh passive data connection.
struct Transfer {
  std::string opened;  // the preliminary reply (or the refusal)
  std::string data;    // what the data connection delivered
  std::string done;    // the final reply
};

inline Transfer passive_transfer(Control& c, const std::string& command, int timeout_ms = 5000) {
  Transfer t;
  int fd = connect_passive(c.cmd("PASV", timeout_ms));
  if (fd < 0) return t;
  t.opened = c.cmd(command, timeout_ms);
  if (t.opened.rfind("1", 0) != 0) {
    close(fd);
    return t;
  }
  t.data = read_all(fd, timeout_ms);
  t.done = c.line(timeout_ms);
  return t;
}

// Runs a Python script (Debian's interpreter, which has the FTP modules)
// with arguments; its standard output goes to *out.
inline int run_python(const std::string& script, const std::vector<std::string>& args, std::string* out,
                      int timeout_ms = 120000) {
  std::vector<std::string> argv = {"/usr/bin/python3", "-"};
  argv.insert(argv.end(), args.begin(), args.end());
  return vektest::run_program(argv, out, script, timeout_ms);
}

// Makes the socket registry, which lives as long as the process, before any leak count starts.
inline void warm_up_sockets() {
  void* warm = nullptr;
  if (socket_create(&warm) == 0) socket_delete(warm);
  socket_instrument_handle();
}

// A server on a scratch root, its default socket workers made per test.
class ServerTest : public vektest::LeakCheckedTest {
 protected:
  static void SetUpTestSuite() { warm_up_sockets(); }

  void SetUp() override {
    vektest::LeakCheckedTest::SetUp();
    ASSERT_EQ(0, socket_async_default_init(socket_get_fd_setsize(), 0, 2000));
    {
      std::lock_guard<std::mutex> guard(g_seen_mutex);
      g_seen.clear();
    }
    root_ = dir_.path() + "/root";
    ASSERT_EQ(0, directory_create(root_.c_str()));
  }

  void TearDown() override {
    stop();
    ftp_command_uninit();
    socket_async_default_uninit();
    vektest::LeakCheckedTest::TearDown();
  }

  void start(ftp_server_post_cmd_callback post = record, ftp_server_cmd_callback pre = nullptr) {
    ASSERT_EQ(0, ftp_server_start(&server_, 0, root_.c_str(), accounts, pre, post));
    port_ = static_cast<_FTP_SERVER_OBJECT*>(server_)->port;
  }

  void stop() {
    if (server_) ftp_server_stop(server_);
    server_ = nullptr;
  }

  std::string path(const std::string& name) const { return root_ + "/" + name; }

  vektest::TempDir dir_;
  std::string root_;
  void* server_ = nullptr;
  int port_ = 0;
};

}  // namespace ftptest
