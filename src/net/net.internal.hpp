// Helpers shared by the socket, TCP, secure-stream, datagram and proxy code.
// Not installed.
#pragma once

#include <poll.h>

#include <cerrno>
#include <ctime>

#include <vekutil/socket.h>

#include "core/internal.hpp"

namespace vek::net {

// Largest piece handed to one send or receive system call.
constexpr int kMaxIoChunk = 65535;

// Sets SIGPIPE to be ignored the first time any socket object is made.
void ignore_sigpipe_once();

inline ABSTRACT_SOCKET* as_socket(void* handle) { return static_cast<ABSTRACT_SOCKET*>(handle); }
inline const ABSTRACT_SOCKET* as_socket(const void* handle) { return static_cast<const ABSTRACT_SOCKET*>(handle); }

// The operation slots a transport layer (TCP, TLS, the secure stream) puts
// on a socket.
struct SocketLayer {
  abstract_send send;
  abstract_send2 send2;
  abstract_recv recv;
  abstract_recv2 recv2;
  abstract_close close;
};

// Lets the layer now in the slots give its state back before another layer
// takes them or the record is freed.
inline void release_layer(ABSTRACT_SOCKET* s) {
  if (s->handle && s->a_close) s->a_close(s);
}

inline void install_layer(ABSTRACT_SOCKET* s, const SocketLayer& layer) {
  s->a_send = layer.send;
  s->a_send2 = layer.send2;
  s->a_recv = layer.recv;
  s->a_recv2 = layer.recv2;
  s->a_close = layer.close;
}

// The optional per-socket loggers, called only when set.
inline void log_result(ABSTRACT_SOCKET* s, const char* fn, int ret, int oserr) {
  if (s->a_log_a) s->a_log_a(s, s->owner, s->s, fn, ret, oserr);
}
inline void log_buffer(ABSTRACT_SOCKET* s, const char* fn, const char* data, int len) {
  if (s->a_log_b) s->a_log_b(s, s->owner, s->s, fn, data, len);
}

// Monotonic milliseconds, for time-outs that span several system calls.
inline long long monotonic_ms() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// The time left of one operation's time-out. A positive time-out is shared
// by every wait of the operation; 0 and -1 never wait (the calls block).
class Deadline {
 public:
  explicit Deadline(int timeout_ms) : timeout_(timeout_ms), end_(timeout_ms > 0 ? monotonic_ms() + timeout_ms : 0) {}
  bool waits() const { return timeout_ > 0; }
  int left() const {
    long long rest = end_ - monotonic_ms();
    return rest > 0 ? (int)rest : 0;
  }

 private:
  int timeout_;
  long long end_;
};

// What a readiness wait found.
enum class Ready { yes, timeout, failed };

// Waits until fd is readable (or writable), as select would report it:
// errors and hang-ups count as ready so that the following call sees them.
// poll, unlike select, takes descriptors of any number. A signal only
// restarts the wait with the time left. Failure leaves errno set.
inline Ready wait_fd(int fd, bool for_write, int timeout_ms) {
  const short want = for_write ? POLLOUT : (POLLIN | POLLPRI);
  for (;;) {
    struct pollfd p = {fd, want, 0};
    int n = poll(&p, 1, timeout_ms);
    if (n > 0) {
      if (p.revents & POLLNVAL) {
        errno = EBADF;
        return Ready::failed;
      }
      return Ready::yes;
    }
    if (n == 0) return Ready::timeout;
    if (errno != EINTR) return Ready::failed;
  }
}

inline Ready wait_fd(int fd, bool for_write, const Deadline& d) { return wait_fd(fd, for_write, d.left()); }

inline bool would_block(int e) { return e == EAGAIN || e == EWOULDBLOCK; }

}  // namespace vek::net
