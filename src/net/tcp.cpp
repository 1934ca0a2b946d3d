// The TCP operations in the slots of every plain socket.
//
// With a positive time-out the calls do not block: each system call is made
// with MSG_DONTWAIT and only when it would block does the call wait (poll)
// for the time left. A blocking send after a "writable" answer could
// otherwise hang long past the time-out on a peer that stopped reading, and
// data already waiting costs no extra system call.
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <cerrno>
#include <cstring>

#include <vekutil/tcp.h>

#include "net/net.internal.hpp"

namespace {

using vek::net::as_socket;
using vek::net::Deadline;
using vek::net::kMaxIoChunk;
using vek::net::log_buffer;
using vek::net::log_result;
using vek::net::Ready;

int fail(ABSTRACT_SOCKET* s, const char* fn, int code, int err, int logged_ret) {
  s->err = err;
  log_result(s, fn, logged_ret, err == code ? 0 : err);
  return code;
}

int io_flags(int timeout) { return MSG_NOSIGNAL | (timeout > 0 ? MSG_DONTWAIT : 0); }

// Waits for writability after a send that would block; 0 to go on.
int await_send(ABSTRACT_SOCKET* s, const Deadline& deadline) {
  switch (vek::net::wait_fd(s->s, true, deadline)) {
    case Ready::yes:
      return 0;
    case Ready::timeout:
      return fail(s, "send(select)", ERR_SOCKET_TIMEOUT, ERR_SOCKET_TIMEOUT, ERR_SOCKET_TIMEOUT);
    default:
      return fail(s, "send(select)", ERR_SOCKET_SEND_FAILED, errno, ERR_SOCKET_SEND_FAILED);
  }
}

// Waits for readability after a receive that would block; 0 to go on.
int await_recv(ABSTRACT_SOCKET* s, const Deadline& deadline) {
  const int would_block_errno = errno;
  switch (vek::net::wait_fd(s->s, false, deadline)) {
    case Ready::yes:
      return 0;
    case Ready::timeout:
      s->err = ERR_SOCKET_TIMEOUT;
      log_result(s, "recv()", 0, would_block_errno);
      return ERR_SOCKET_TIMEOUT;
    default:
      return fail(s, "recv()", ERR_SOCKET_SEND_FAILED, errno, -1);
  }
}

int checked_length(const char* buffer, int length) {
  if (length == -1) return (int)std::min<size_t>(std::strlen(buffer) + 1, (size_t)INT_MAX);
  return length;
}

}  // namespace

int tcp_send(void* handle, const char* buffer, int length) { return tcp_send2(handle, buffer, length, 10000); }

int tcp_send2(void* handle, const char* buffer, int length, int timeout) {
  if (!handle) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(handle);
  if (!buffer || length < -1) return s->err = ERR_INVALID_PARAMETER;
  if (timeout < -1) {
    s->err = EINVAL;
    return ERR_SOCKET_FAILED;
  }
  length = checked_length(buffer, length);
  const Deadline deadline(timeout);
  const int flags = io_flags(timeout);
  int sent = 0;
  bool logged = false;
  while (sent < length) {
    const int chunk = std::min(length - sent, kMaxIoChunk);
    if (!logged) log_buffer(s, "send()", buffer + sent, chunk);
    logged = true;
    const ssize_t n = send(s->s, buffer + sent, (size_t)chunk, flags | (sent + chunk < length ? MSG_MORE : 0));
    if (n >= 0) {
      sent += (int)n;
      logged = false;
      // A short non-blocking send means the buffer is full: wait right away
      // instead of asking again only to hear "would block".
      if (n == chunk || timeout <= 0 || sent == length) continue;
      errno = EAGAIN;
    }
    if (timeout > 0 && vek::net::would_block(errno)) {
      int rc = await_send(s, deadline);
      if (rc != 0) return rc;
      continue;
    }
    // Interrupted sends are not retried: the caller learns of the signal.
    return fail(s, "send()", ERR_SOCKET_SEND, errno, ERR_SOCKET_SEND);
  }
  log_result(s, "send()", 0, 0);
  return 0;
}

int tcp_recv(void* handle, char* buffer, int length, int timeout) {
  if (!handle) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(handle);
  if (!buffer || length < 0) return s->err = ERR_INVALID_PARAMETER;
  if (timeout < -1) {
    s->err = EINVAL;
    return ERR_SOCKET_BAD_TIMEOUT;
  }
  const Deadline deadline(timeout);
  const int flags = io_flags(timeout);
  int received = 0;
  while (received < length) {
    const ssize_t n = recv(s->s, buffer + received, (size_t)std::min(length - received, kMaxIoChunk), flags);
    if (n > 0) {
      log_buffer(s, "recv()", buffer + received, (int)n);
      const bool drained = n < std::min(length - received, kMaxIoChunk);
      received += (int)n;
      // A short non-blocking read emptied the queue: wait right away.
      if (!drained || timeout <= 0 || received == length) continue;
      errno = EAGAIN;
      int rc = await_recv(s, deadline);
      if (rc != 0) return rc;
      continue;
    }
    if (n == 0) return fail(s, "recv()", ERR_SOCKET_CLOSED, ERR_SOCKET_CLOSED, ERR_SOCKET_CLOSED);
    if (errno == EINTR) continue;
    if (timeout > 0 && vek::net::would_block(errno)) {
      int rc = await_recv(s, deadline);
      if (rc != 0) return rc;
      continue;
    }
    return fail(s, "recv()", ERR_SOCKET_RECV, errno, ERR_SOCKET_RECV);
  }
  log_result(s, "recv()", 0, 0);
  return 0;
}

int tcp_recv2(void* handle, char* buffer, int* length, int timeout) {
  if (!handle) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(handle);
  if (!buffer || !length) return s->err = ERR_INVALID_PARAMETER;
  const int wanted = std::min(*length, kMaxIoChunk);
  *length = 0;
  if (wanted < 1) return s->err = ERR_INVALID_PARAMETER;
  if (timeout < -1) {
    s->err = EINVAL;
    return ERR_SOCKET_BAD_TIMEOUT;
  }
  const Deadline deadline(timeout);
  ssize_t n = recv(s->s, buffer, (size_t)wanted, io_flags(timeout));
  // One wait at most; a wake-up without data (another reader was quicker)
  // waits again for what is left of the time-out.
  while (n < 0 && timeout > 0 && vek::net::would_block(errno)) {
    int rc = await_recv(s, deadline);
    if (rc != 0) return rc;
    n = recv(s->s, buffer, (size_t)wanted, io_flags(timeout));
  }
  if (n > 0) {
    log_buffer(s, "recv()", buffer, (int)n);
    *length = (int)n;
    log_result(s, "recv()", 0, 0);
    return 0;
  }
  if (n == 0) return fail(s, "recv()", ERR_SOCKET_CLOSED, ERR_SOCKET_CLOSED, ERR_SOCKET_CLOSED);
  return fail(s, "recv()", ERR_SOCKET_RECV, errno, ERR_SOCKET_RECV);
}

int tcp_close(void*) { return 0; }
