// Remote syslog: the one-shot sender and the collector, whose receiver
// thread hands every datagram that begins with "<" to the host's callback.
#include <vekutil/syslog.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include <vekutil/blob.h>
#include <vekutil/threads.h>
#include <vekutil/timeutil.h>
#include <vekutil/udp.h>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/syslog.c";
constexpr const char* kThreadName = "Syslog UDP Listner";
// The receiver runs the host's callback, so it gets a full-sized stack.
constexpr int kReceiverStack = 256 * 1024;
// Longer datagrams are cut to this size by the receive.
constexpr int kReceiveBufferSize = 16384;
// Kernel receive queue asked for, so that bursts are not dropped while a
// callback runs; the kernel caps it at its configured maximum.
constexpr int kReceiveQueueBytes = 4 * 1024 * 1024;
constexpr int kInitialMessageSize = 128;

struct _SYSLOG_COLLECTOR {
  void* thread;  // receiver thread
  void* socket;  // bound UDP socket
  int is_stopping;
  syslog_on_recv_callback callback;
  void* custom;
};

bool stopping(_SYSLOG_COLLECTOR* c) {
  return std::atomic_ref<int>(c->is_stopping).load(std::memory_order_acquire) != 0;
}

// ---- sending -------------------------------------------------------------

// Appends "name " with every blank of the name turned into "_".
int append_hostname(void* blob, const char* hostname) {
  const int start = blob_get_length(blob);
  int rc = blob_format_append(blob, "%s ", hostname);
  if (rc != 0) return rc;
  char* text = static_cast<char*>(blob_get_buffer(blob));
  const int end = blob_get_length(blob) - 1;  // the separating blank stays
  for (int i = start; i < end; ++i)
    if (text[i] == ' ') text[i] = '_';
  return 0;
}

int build_message(void* blob, int facility, int level, long long timestamp, const char* hostname,
                  const char* message) {
  // Wrapping arithmetic: absurd facilities must not overflow into undefined behaviour.
  const int priority = static_cast<int>(static_cast<unsigned>(facility) * 8u + static_cast<unsigned>(level));
  int rc;
  if (timestamp > 0) {
    char when[64];
    time_sprintf(when, sizeof when, "%b %e %H:%M:%S", timestamp);
    rc = blob_format_append(blob, "<%d>%s ", priority, when);
  } else {
    rc = blob_format_append(blob, "<%d>", priority);
  }
  if (rc == 0 && hostname) rc = append_hostname(blob, hostname);
  if (rc == 0) rc = blob_format_append(blob, "%s ", message);
  return rc;
}

int send_datagram(const char* server, const char* data, int length) {
  void* udp = nullptr;
  int rc = udp_create(&udp);
  if (rc == 0) rc = udp_open(udp);
  if (rc == 0) rc = udp_send(udp, data, length, server);
  if (udp) udp_delete(udp);
  return rc;
}

// ---- receiving -----------------------------------------------------------

// The priority's level: its decimal digits taken modulo 8 as they are read,
// so that any number of digits is harmless.
int parse_level(const char* digits) {
  unsigned level = 0;
  for (const char* p = digits; *p >= '0' && *p <= '9'; ++p) level = (level * 10u + unsigned(*p - '0')) & 7u;
  return static_cast<int>(level);
}

const char* message_text(const char* text) {
  const char* close = std::strchr(text, '>');
  if (close) return close + 1;
  const char* p = text + 1;
  while (*p >= '0' && *p <= '9') ++p;
  return p;
}

void deliver(_SYSLOG_COLLECTOR* c, char* buffer, int length, const char* host) {
  buffer[length - 1] = '\0';  // drops the final character, normally the newline
  if (buffer[0] != '<') return;
  const int level = parse_level(buffer + 1);
  const int facility = (-level) / 8;  // always 0: the facility bits are not decoded
  c->callback(facility, level, time_now(), host, message_text(buffer), c->custom);
}

// Writes the dotted quad of a host-order IPv4 address; out holds 16 bytes.
void format_ipv4(unsigned address, char* out) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    const unsigned octet = (address >> shift) & 255u;
    if (octet >= 100) *out++ = char('0' + octet / 100);
    if (octet >= 10) *out++ = char('0' + octet / 10 % 10);
    *out++ = char('0' + octet % 10);
    *out++ = shift ? '.' : '\0';
  }
}

// One datagram into buffer, and the sender's address (without port) into
// host. It is udp_recv without the allocated "address:port" text, which
// would cost as much as the rest of the collector's work per datagram.
// Returns the byte count, or -1 with the cause in *err.
int receive_datagram(void* udp, char* buffer, int size, char* host, int* err) {
  sockaddr_in from{};
  socklen_t from_size = sizeof from;
  ssize_t n;
  do {
    n = recvfrom(udp_descriptor(udp), buffer, (size_t)size, 0, reinterpret_cast<sockaddr*>(&from), &from_size);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    *err = errno;
    return -1;
  }
  format_ipv4(ntohl(from.sin_addr.s_addr), host);
  return (int)n;
}

// Receive failures that say nothing about the socket itself: the receiver
// carries on after them.
bool transient(int err) { return err == EINTR || err == EAGAIN || err == ENOMEM || err == ENOBUFS; }

void* receiver_main(void* arg) {
  auto* c = static_cast<_SYSLOG_COLLECTOR*>(arg);
  char short_name[16];  // the kernel keeps 15 characters of a thread's name
  vek::copy_name(short_name, sizeof short_name, kThreadName);
  pthread_setname_np(pthread_self(), short_name);
  auto* buffer = static_cast<char*>(_vekMalloc(kReceiveBufferSize, kSource, __LINE__));
  if (!buffer) return nullptr;
  for (;;) {
    char host[16];
    int err = 0;
    const int received = receive_datagram(c->socket, buffer, kReceiveBufferSize, host, &err);
    const bool stop = stopping(c);
    if (stop) break;
    // An empty datagram is skipped, not taken for the end of the socket.
    if (received > 0) deliver(c, buffer, received, host);
    if (received < 0 && !transient(err)) {
      log_vek_error("syslog_collector(%s): recvfrom failed[%d]\n", kThreadName, err);
      break;
    }
  }
  _vekFree(buffer, kSource, __LINE__);
  return nullptr;
}

int start_receiver(_SYSLOG_COLLECTOR* c) {
  THREAD_EX_ARGS ex{kThreadName, kReceiverStack, 0};
  return thread_create_ex(&c->thread, receiver_main, c, &ex);
}

void destroy(_SYSLOG_COLLECTOR* c) {
  if (c->thread) thread_delete(c->thread);
  if (c->socket) udp_delete(c->socket);
  _vekFree(c, kSource, __LINE__);
}

}  // namespace

int syslog_remote_ex(const char* server, int facility, int level, long long timestamp, const char* hostname,
                     const char* message) {
  if (!server || !message) return ERR_INVALID_PARAMETER;
  void* blob = nullptr;
  int rc = blob_create(&blob, kInitialMessageSize);
  if (rc != 0) return rc;
  rc = build_message(blob, facility, level, timestamp, hostname, message);
  if (rc == 0) rc = send_datagram(server, static_cast<const char*>(blob_get_buffer(blob)), blob_get_length(blob));
  blob_delete(blob);
  return rc;
}

int syslog_remote(const char* server, int facility, int level, const char* message) {
  return syslog_remote_ex(server, facility, level, -1, nullptr, message);
}

int syslog_collector_create(void** handle, int port, syslog_on_recv_callback callback, void* custom) {
  if (!handle || !callback) return ERR_INVALID_PARAMETER;
  *handle = nullptr;
  auto* c = vek::alloc_record<_SYSLOG_COLLECTOR>(kSource, __LINE__);
  if (!c) return ERR_NO_MEMORY;
  c->callback = callback;
  c->custom = custom;
  char address[32];
  std::snprintf(address, sizeof address, "0.0.0.0:%d", port);
  int rc = udp_create(&c->socket);
  if (rc == 0) rc = udp_bind(c->socket, address);
  if (rc == 0) {
    const int queue = kReceiveQueueBytes;
    if (setsockopt(udp_descriptor(c->socket), SOL_SOCKET, SO_RCVBUF, &queue, sizeof queue) != 0)
      log_vek_error("syslog_collector_create(%s): setsockopt(SO_RCVBUF) failed[%d]\n", address, errno);
    rc = start_receiver(c);
  }
  if (rc != 0) {
    destroy(c);
    return rc;
  }
  *handle = c;
  return 0;
}

int syslog_collector_delete(void* handle) {
  if (!handle) return ERR_INVALID_PARAMETER;
  auto* c = static_cast<_SYSLOG_COLLECTOR*>(handle);
  std::atomic_ref<int>(c->is_stopping).store(1, std::memory_order_release);
  // Shutting the socket down ends the pending receive (and every later one
  // returns at once), while the descriptor stays the receiver's until it is
  // joined: closing it under the receive could hand its number to another
  // socket of the process.
  shutdown(udp_descriptor(c->socket), SHUT_RDWR);
  thread_join(c->thread, nullptr);
  destroy(c);
  return 0;
}

int syslog_collector_port(void* handle) {
  if (!handle) return ERR_INVALID_PARAMETER;
  auto* c = static_cast<_SYSLOG_COLLECTOR*>(handle);
  sockaddr_in local{};
  socklen_t size = sizeof local;
  if (getsockname(udp_descriptor(c->socket), reinterpret_cast<sockaddr*>(&local), &size) != 0) return ERR_SOCKET_FAILED;
  return ntohs(local.sin_port);
}
