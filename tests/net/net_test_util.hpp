// Loopback helpers shared by the network tests: raw POSIX peers, library
// sockets that clean up after themselves, and loop counts scaled down under
// the sanitizers.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <vekutil/vekutil.h>

#include "peer.hpp"

namespace nettest {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// n in the plain build, n / divisor (at least 1) under a sanitizer.
constexpr int scaled(int n, int divisor = 20) { return kSanitized ? (n / divisor > 0 ? n / divisor : 1) : n; }

inline std::string loopback(int port) { return "127.0.0.1:" + std::to_string(port); }

inline int local_port(int fd) {
  sockaddr_in sin{};
  socklen_t len = sizeof(sin);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&sin), &len) != 0) return -1;
  return ntohs(sin.sin_port);
}

// A raw listening socket on 127.0.0.1 with a port the system chose.
class RawListener {
 public:
  explicit RawListener(int backlog = 64) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    const sockaddr_in sin = vektest::loopback_sockaddr(0);
    if (bind(fd_, reinterpret_cast<const sockaddr*>(&sin), sizeof(sin)) != 0 || listen(fd_, backlog) != 0) {
      close(fd_);
      fd_ = -1;
    }
  }
  ~RawListener() {
    if (fd_ >= 0) close(fd_);
  }
  RawListener(const RawListener&) = delete;
  RawListener& operator=(const RawListener&) = delete;

  int fd() const { return fd_; }
  int port() const { return local_port(fd_); }
  std::string addr() const { return loopback(port()); }
  // A client within timeout_ms, or -1.
  int accept_fd(int timeout_ms = 5000) const {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return -1;
    return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  }

 private:
  int fd_ = -1;
};

// A raw client of 127.0.0.1:port, or -1; with SOCK_NONBLOCK the handshake may still be under way.
inline int raw_connect(int port, int flags = 0) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
  const sockaddr_in sin = vektest::loopback_sockaddr(port);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&sin), sizeof(sin)) != 0 && errno != EINPROGRESS) {
    close(fd);
    return -1;
  }
  return fd;
}

inline bool write_all(int fd, const void* data, size_t len) {
  const char* p = static_cast<const char*>(data);
  while (len > 0) {
    ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
    if (n <= 0) return false;
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}
inline bool write_all(int fd, const std::string& s) { return write_all(fd, s.data(), s.size()); }

// Exactly n bytes within timeout_ms per piece; fewer if the peer closes.
inline std::string read_exact(int fd, size_t n, int timeout_ms = 5000) {
  std::string out;
  out.resize(n);
  size_t got = 0;
  while (got < n) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) break;
    ssize_t r = recv(fd, out.data() + got, n - got, 0);
    if (r <= 0) break;
    got += static_cast<size_t>(r);
  }
  out.resize(got);
  return out;
}

// Everything until the peer closes (or timeout_ms passes without data).
inline std::string read_to_end(int fd, int timeout_ms = 5000) {
  std::string out;
  char buf[65536];
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) break;
    ssize_t r = recv(fd, buf, sizeof(buf), 0);
    if (r <= 0) break;
    out.append(buf, static_cast<size_t>(r));
  }
  return out;
}

// Closes with a reset instead of an orderly end.
inline void reset_close(int fd) {
  linger l{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof(l));
  close(fd);
}

// A raw server: one thread hands clients, one after another, to serve(fd,
// stop) until the object goes away; the descriptor is closed after.
class RawServer {
 public:
  using Serve = std::function<void(int fd, const std::atomic<bool>& stop)>;
  explicit RawServer(Serve serve) : serve_(std::move(serve)), thread_([this] { run(); }) {}
  ~RawServer() {
    stop_ = true;
    thread_.join();
  }
  int port() const { return listener_.port(); }
  std::string addr() const { return listener_.addr(); }

 private:
  void run() {
    while (!stop_) {
      int fd = listener_.accept_fd(50);
      if (fd < 0) continue;
      serve_(fd, stop_);
      close(fd);
    }
  }

  RawListener listener_;
  Serve serve_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Greets each client first (so a client that read past what was meant for
// it would swallow the greeting), then echoes.
inline RawServer::Serve echo_after(std::string greeting) {
  return [greeting](int fd, const std::atomic<bool>& stop) {
    write_all(fd, greeting);
    char buf[65536];
    for (;;) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 50) == 0) {
        if (stop) break;
        continue;
      }
      ssize_t n = recv(fd, buf, sizeof(buf), 0);
      if (n <= 0 || !write_all(fd, buf, static_cast<size_t>(n))) break;
    }
  };
}

inline int registered_sockets() {
  int n = 0;
  socket_foreach([](const void*, void* count) { ++*static_cast<int*>(count); }, &n);
  return n;
}

// A library socket deleted at the end of the scope.
class Sock {
 public:
  Sock() { socket_create(&h_); }
  explicit Sock(void* adopted) : h_(adopted) {}
  ~Sock() { reset(); }
  Sock(const Sock&) = delete;
  Sock& operator=(const Sock&) = delete;
  Sock(Sock&& o) noexcept : h_(o.h_) { o.h_ = nullptr; }
  Sock& operator=(Sock&& o) noexcept {
    if (this != &o) {
      reset();
      h_ = std::exchange(o.h_, nullptr);
    }
    return *this;
  }

  void* get() const { return h_; }
  ABSTRACT_SOCKET* rec() const { return static_cast<ABSTRACT_SOCKET*>(h_); }
  explicit operator bool() const { return h_ != nullptr; }
  void reset() {
    if (h_) socket_delete(h_);
    h_ = nullptr;
  }

 private:
  void* h_ = nullptr;
};

// A library listener on 127.0.0.1 with a port the system chose.
class Listener {
 public:
  Listener() { rc_ = socket_listen(&h_, "127.0.0.1:0"); }
  ~Listener() {
    if (h_) socket_unlisten(h_);
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int rc() const { return rc_; }
  void* get() const { return h_; }
  int port() const { return local_port(static_cast<SERVER_SOCKET*>(h_)->s); }
  std::string addr() const { return loopback(port()); }
  Sock accept(int timeout_ms = 5000) const { return Sock(socket_accept(h_, timeout_ms)); }

 private:
  void* h_ = nullptr;
  int rc_ = 0;
};

// A connected pair of library sockets: client and the accepted end.
struct Pair {
  Sock client;
  Sock server;
};

inline Pair connect_pair(const Listener& l, int options = SOCKET_OPTION_NODELAY) {
  Pair p;
  int rc = socket_connect_ex2(p.client.get(), l.addr().c_str(), 5000, options);
  if (rc == 0) p.server = l.accept();
  return p;
}

// Bytes that differ from one position to the next, for transfers.
inline std::string pattern(size_t n, unsigned seed = 1) {
  std::string s(n, '\0');
  unsigned x = seed * 2654435761u + 1;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    s[i] = static_cast<char>(x >> 16);
  }
  return s;
}

// Raises the soft descriptor limit to at least `wanted` for the object's lifetime.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t wanted) {
    getrlimit(RLIMIT_NOFILE, &saved_);
    rlimit raised = saved_;
    raised.rlim_cur = std::max(saved_.rlim_cur, std::min<rlim_t>(wanted, saved_.rlim_max));
    ok_ = raised.rlim_cur >= wanted && setrlimit(RLIMIT_NOFILE, &raised) == 0;
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &saved_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  bool ok() const { return ok_; }

 private:
  rlimit saved_{};
  bool ok_ = false;
};

inline std::string hex(const unsigned char* p, size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s += digits[p[i] >> 4];
    s += digits[p[i] & 15];
  }
  return s;
}

// AES-CBC by the openssl program (key size from the hex key); with pad,
// its own padding, else whole blocks only. "<openssl failed>" on failure.
inline std::string openssl_cbc(bool encrypt, const std::string& key_hex, const std::string& iv_hex,
                               const std::string& in, bool pad) {
  std::vector<std::string> argv = {"openssl", "enc", encrypt ? "-e" : "-d",
                                   "-aes-" + std::to_string(key_hex.size() * 4) + "-cbc", "-K", key_hex, "-iv", iv_hex};
  if (!pad) argv.push_back("-nopad");
  std::string out;
  return vektest::run_program(argv, &out, in) == 0 ? out : "<openssl failed>";
}

}  // namespace nettest
