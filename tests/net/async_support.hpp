// Loopback pieces shared by the asynchronous handler tests: a library
// listener with the port the system gave it, raw client descriptors on the
// other end, connected pairs, and a probe that records what a worker handed
// to a callback.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vekutil/socket.async.h>
#include <vekutil/socket.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "vek_test.hpp"

namespace asynctest {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Long enough for a loaded machine; tests only wait this long when failing.
constexpr int kPatienceMs = 10000;

// A library listener on 127.0.0.1 with a system-chosen port.
class Listener {
 public:
  Listener() {
    if (socket_listen(&server_, "127.0.0.1:0") != 0) return;
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    if (getsockname(socket_descriptor(server_), reinterpret_cast<sockaddr*>(&addr), &len) == 0)
      port_ = ntohs(addr.sin_port);
  }
  ~Listener() { release(); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  void* server() const { return server_; }
  int port() const { return port_; }
  // Hands the listener over (e.g. to a worker that will unlisten it).
  void* take() {
    void* s = server_;
    server_ = nullptr;
    return s;
  }
  void release() {
    if (server_) socket_unlisten(server_);
    server_ = nullptr;
  }

 private:
  void* server_ = nullptr;
  int port_ = 0;
};

// A plain blocking client descriptor connected to 127.0.0.1:port, or -1.
inline int connect_raw(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons((uint16_t)port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

inline bool send_all(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += (size_t)n;
  }
  return true;
}

// Reads until want bytes arrived, the peer closed, or timeout_ms passed.
inline std::string recv_bytes(int fd, size_t want, int timeout_ms = kPatienceMs) {
  std::string out;
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (out.size() < want) {
    int left =
        (int)std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    pollfd p{fd, POLLIN, 0};
    if (left <= 0 || poll(&p, 1, left) <= 0) break;
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) break;
    out.append(buf, (size_t)n);
  }
  return out;
}

// A raw client and the library socket that accepted it.
struct Pair {
  int client = -1;
  void* server_end = nullptr;

  Pair() = default;
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;
  ~Pair() {
    close_client();
    if (server_end) socket_delete(server_end);
  }
  bool open(const Listener& listener) {
    client = connect_raw(listener.port());
    if (client >= 0) server_end = socket_accept(listener.server(), kPatienceMs);
    return client >= 0 && server_end;
  }
  void close_client() {
    if (client >= 0) close(client);
    client = -1;
  }
};

// What a worker handed to one socket's callback, and what the callback
// answers. In receive mode a ready call drains what is waiting without
// blocking, so a call with nothing to read shows up as an empty read.
struct Probe {
  std::mutex m;
  std::condition_variable cv;
  std::vector<int> statuses;
  std::string received;
  int empty_reads = 0;
  int eof_seen = 0;
  int reply = SOCKET_ASYNC_KEEP;  // returned from every call
  bool accept_mode = false;

  void record(int status, void* socket) {
    std::lock_guard<std::mutex> lock(m);
    statuses.push_back(status);
    if (status == 0 && !accept_mode) drain(socket);
    cv.notify_all();
  }
  void drain(void* socket) {
    char buf[4096];
    ssize_t n = recv(socket_descriptor(socket), buf, sizeof buf, MSG_DONTWAIT);
    if (n > 0)
      received.append(buf, (size_t)n);
    else if (n == 0)
      ++eof_seen;
    else
      ++empty_reads;
  }
  // Waits until at least n calls were recorded.
  bool wait_calls(size_t n, int timeout_ms = kPatienceMs) {
    std::unique_lock<std::mutex> lock(m);
    return cv.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return statuses.size() >= n; });
  }
  size_t calls() {
    std::lock_guard<std::mutex> lock(m);
    return statuses.size();
  }
  std::vector<int> seen() {
    std::lock_guard<std::mutex> lock(m);
    return statuses;
  }
  int count(int status) {
    std::lock_guard<std::mutex> lock(m);
    int n = 0;
    for (int s : statuses) n += s == status;
    return n;
  }

  static int callback(int status, void* socket, void* custom) {
    auto* probe = static_cast<Probe*>(custom);
    probe->record(status, socket);
    std::lock_guard<std::mutex> lock(probe->m);
    return probe->reply;
  }
};

// Worker test fixture: the socket registry exists before leak accounting
// starts, since the first socket of the process makes it for good.
class AsyncTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    socket_instrument_handle();
    void* warm = nullptr;
    if (socket_create(&warm) == 0) socket_delete(warm);
    vektest::LeakCheckedTest::SetUp();
  }
};

// A worker owned by a test; deleted at the end unless the test did it.
class Worker {
 public:
  explicit Worker(int max_socket = 64, int timeout = 100, const char* name = "test worker") {
    rc_ = socket_async_worker_create(&handle_, name, max_socket, 0, timeout);
  }
  ~Worker() { destroy(); }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  void* get() const { return handle_; }
  int created() const { return rc_; }
  void destroy() {
    if (handle_) socket_async_worker_delete(handle_);
    handle_ = nullptr;
  }

 private:
  void* handle_ = nullptr;
  int rc_ = 0;
};

// The socket's registration, read the way the worker writes it.
inline void* registered_entry(void* socket) {
  return __atomic_load_n(&static_cast<ABSTRACT_SOCKET*>(socket)->async_handle, __ATOMIC_ACQUIRE);
}

}  // namespace asynctest
