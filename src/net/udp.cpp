// IPv4 datagram sockets for single datagrams of at most 65535 bytes.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <vekutil/inet.h>
#include <vekutil/udp.h>

#include "net/net.internal.hpp"

namespace {

constexpr const char* kSource = "src/udp.c";

struct _UDP {
  int s;    // the descriptor; 0 = none
  int err;  // last errno or library code
};

_UDP* as_udp(void* handle) { return static_cast<_UDP*>(handle); }

int udp_fail(_UDP* u, int code, int err) {
  u->err = err;
  return code;
}

// Set-up failures close the descriptor they made. Its number is cleared
// too: a later udp_close must not close a descriptor that by then belongs
// to someone else.
int setup_fail(_UDP* u, int code, int err) {
  close(u->s);
  u->s = 0;
  return udp_fail(u, code, err);
}

int set_int_option(int fd, int name, int value) { return setsockopt(fd, SOL_SOCKET, name, &value, sizeof(value)); }

int set_buffers(_UDP* u) {
  if (set_int_option(u->s, SO_SNDBUF, UDP_MAX_DATAGRAM) != 0 || set_int_option(u->s, SO_RCVBUF, UDP_MAX_DATAGRAM) != 0)
    return setup_fail(u, ERR_SOCKET_OPTION, errno);
  return 0;
}

// A fresh descriptor; one still open from an earlier open or bind goes.
int new_descriptor(_UDP* u) {
  udp_close(u);
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (fd == 0) {  // 0 means "none" in the record: move it up
    fd = fcntl(0, F_DUPFD_CLOEXEC, 1);
    close(0);
  }
  if (fd < 0) return udp_fail(u, ERR_SOCKET_CREATE, errno);
  u->s = fd;
  return 0;
}

// One recvfrom of at most *length bytes, as udp_recv and udp_peek make it.
int receive(_UDP* u, char* data, int* length, char** addr, int flags) {
  struct sockaddr_in from;
  std::memset(&from, 0, sizeof(from));
  socklen_t from_len = sizeof(from);
  ssize_t n;
  do {
    n = recvfrom(u->s, data, (size_t)*length, flags, reinterpret_cast<struct sockaddr*>(&from), &from_len);
  } while (n < 0 && errno == EINTR);
  if (n < 0) u->err = errno;
  *length = (int)n;
  // The sender's text is made even when the call failed.
  if (addr) *addr = make_string_from_addr(&from);
  return (int)n;
}

int check_receive_args(_UDP* u, const char* data, const int* length) {
  if (!u) return ERR_INVALID_HANDLE;
  if (!data || !length || *length < 0) return ERR_INVALID_PARAMETER;
  if (*length > UDP_MAX_DATAGRAM) return ERR_UDP_TOO_LARGE;
  return 0;
}

}  // namespace

int udp_create(void** handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  vek::net::ignore_sigpipe_once();
  *handle = vek::alloc_record<_UDP>(kSource, __LINE__);
  return *handle ? 0 : ERR_NO_MEMORY;
}

int udp_open(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  _UDP* u = as_udp(handle);
  if (int rc = new_descriptor(u)) return rc;
  return set_buffers(u);
}

int udp_bind(void* handle, const char* addr) {
  if (!handle) return ERR_INVALID_HANDLE;
  _UDP* u = as_udp(handle);
  if (int rc = new_descriptor(u)) return rc;
  if (set_int_option(u->s, SO_REUSEADDR, 1) != 0) return setup_fail(u, ERR_SOCKET_OPTION, errno);
  struct sockaddr_in sin;
  if (int rc = make_addr(addr, &sin)) return setup_fail(u, rc, rc);
  if (bind(u->s, reinterpret_cast<struct sockaddr*>(&sin), sizeof(sin)) != 0) {
    log_vek_error("udp_bind(%s): bind failed[%d]\n", addr, errno);
    return setup_fail(u, ERR_SOCKET_BIND, errno);
  }
  return set_buffers(u);
}

int udp_enable_broadcast(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  _UDP* u = as_udp(handle);
  if (set_int_option(u->s, SO_BROADCAST, 1) != 0) return udp_fail(u, ERR_SOCKET_OPTION, errno);
  return 0;
}

int udp_send(void* handle, const char* data, int length, const char* addr) {
  if (!handle) return ERR_INVALID_HANDLE;
  _UDP* u = as_udp(handle);
  if (!data || !addr || length < -1) return ERR_INVALID_PARAMETER;
  const size_t n = length == -1 ? std::strlen(data) + 1 : (size_t)length;
  if (n > UDP_MAX_DATAGRAM) return ERR_UDP_TOO_LARGE;
  struct sockaddr_in to;
  if (int rc = make_addr(addr, &to)) return udp_fail(u, rc, rc);
  const ssize_t sent =
      sendto(u->s, data, n, MSG_NOSIGNAL, reinterpret_cast<const struct sockaddr*>(&to), sizeof(to));
  if (sent > 0) return 0;
  // Nothing sent counts as a failure too (an empty datagram included).
  return udp_fail(u, ERR_SOCKET_SEND, errno);
}

int udp_recv(void* handle, char* data, int* length, char** addr) {
  _UDP* u = as_udp(handle);
  if (int rc = check_receive_args(u, data, length)) return rc;
  return receive(u, data, length, addr, 0);
}

int udp_recv2(void* handle, char* data, int* length, char** addr, int timeout) {
  _UDP* u = as_udp(handle);
  if (int rc = check_receive_args(u, data, length)) return rc;
  if (timeout > 0) {
    switch (vek::net::wait_fd(u->s, false, timeout)) {
      case vek::net::Ready::yes:
        break;
      case vek::net::Ready::timeout:
        return udp_fail(u, ERR_SOCKET_TIMEOUT, ERR_SOCKET_TIMEOUT);
      default:
        return udp_fail(u, ERR_SOCKET_SEND_FAILED, errno);
    }
  }
  return receive(u, data, length, addr, 0);
}

int udp_peek(void* handle, char* data, int* length, char** addr) {
  _UDP* u = as_udp(handle);
  if (int rc = check_receive_args(u, data, length)) return rc;
  return receive(u, data, length, addr, MSG_PEEK);
}

int udp_close(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  _UDP* u = as_udp(handle);
  if (u->s == 0) return 0;
  shutdown(u->s, SHUT_RDWR);  // datagram sockets that never connected refuse it; harmless
  if (close(u->s) != 0) {
    u->err = errno;
    log_vek_error("udp_close(%d): close failed[%d]\n", u->s, u->err);
    return ERR_SOCKET_FAILED;
  }
  u->s = 0;
  return 0;
}

int udp_delete(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  udp_close(handle);
  _vekFree(handle, kSource, __LINE__);
  return 0;
}

int udp_isopen(void* handle) { return handle && as_udp(handle)->s > 0 ? 1 : 0; }

int udp_descriptor(void* handle) { return handle ? as_udp(handle)->s : ERR_INVALID_HANDLE; }

int udp_error(void* handle) { return handle ? as_udp(handle)->err : ERR_INVALID_HANDLE; }
