// The IPv4 stream socket: creation, connect with a time-out, listen and
// accept, the dispatchers in front of the operation slots, the registry of
// live sockets and their instrumentation rendering.
//
// Waits on one descriptor use poll rather than select: select cannot take a
// descriptor of FD_SETSIZE (1024) or more, and long-running services hold
// that many files. socket_select, which works on the caller's fd_sets, keeps
// select and refuses descriptors that do not fit in them.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include <vekutil/btree.h>
#include <vekutil/instrument.h>
#include <vekutil/json.h>
#include <vekutil/socket.h>
#include <vekutil/strutil.h>
#include <vekutil/tcp.h>
#include <vekutil/timeutil.h>

#include "core/instrumented.hpp"
#include "core/scoped_lock.hpp"
#include "core/internal.hpp"
#include "core/scoped_lock.hpp"
#include "net/net.internal.hpp"

void* g_socket_btree = nullptr;
char g_socket_hostname[256];
void* g_socket_instrument_handle = nullptr;
// Set once the first socket object of the process has been made.
int g_once = 0;

namespace {

constexpr const char* kSource = "src/socket.c";
constexpr int kConnectSocketAttempts = 10;
constexpr int kListenBacklog = 1024;
constexpr int kBufferSize = 65535;
constexpr int kAcceptLingerSeconds = 10;

// The public records keep their documented field order.
static_assert(offsetof(ABSTRACT_SOCKET, s) == 0);
static_assert(offsetof(ABSTRACT_SOCKET, type) < offsetof(ABSTRACT_SOCKET, err));
static_assert(offsetof(ABSTRACT_SOCKET, err) < offsetof(ABSTRACT_SOCKET, file));
static_assert(offsetof(ABSTRACT_SOCKET, line) < offsetof(ABSTRACT_SOCKET, async_handle));
static_assert(offsetof(ABSTRACT_SOCKET, async_handle) < offsetof(ABSTRACT_SOCKET, peer));
static_assert(offsetof(ABSTRACT_SOCKET, peer_port) < offsetof(ABSTRACT_SOCKET, a_send));
static_assert(offsetof(ABSTRACT_SOCKET, a_close) < offsetof(ABSTRACT_SOCKET, a_log_b));
static_assert(offsetof(ABSTRACT_SOCKET, a_log_a) < offsetof(ABSTRACT_SOCKET, owner));
static_assert(offsetof(ABSTRACT_SOCKET, bytes_out) < offsetof(ABSTRACT_SOCKET, connect_time));
static_assert(offsetof(ABSTRACT_SOCKET, current_recv) < offsetof(ABSTRACT_SOCKET, handle));
static_assert(offsetof(SERVER_SOCKET, async_handle) < offsetof(SERVER_SOCKET, laddr));
static_assert(offsetof(SERVER_SOCKET, type) == offsetof(ABSTRACT_SOCKET, type));
static_assert(offsetof(SERVER_SOCKET, async_handle) == offsetof(ABSTRACT_SOCKET, async_handle));

using vek::net::as_socket;
using vek::net::log_result;
using vek::net::install_layer;
using vek::net::release_layer;

SERVER_SOCKET* as_server(void* handle) { return static_cast<SERVER_SOCKET*>(handle); }

const char* text_or_null(const char* s) { return s ? s : "NULL"; }

// Guards the peer texts against the instrumentation renderer, which may read
// them from another thread while a connect replaces one.
pthread_mutex_t g_peer_lock = PTHREAD_MUTEX_INITIALIZER;

void set_peer(ABSTRACT_SOCKET* s, char* peer) {
  char* old;
  {
    vek::ScopedLock guard(g_peer_lock);
    old = s->peer;
    s->peer = peer;
  }
  if (old) _vekFree(old, kSource, __LINE__);
}

char* copy_text(const char* text, int line) {
  if (!text) return nullptr;
  const size_t n = std::strlen(text) + 1;
  char* copy = static_cast<char*>(_vekMalloc(n, kSource, line));
  if (copy) std::memcpy(copy, text, n);
  return copy;
}

// The registry of live sockets, made on first use.
void* registry() {
  void* tree = __atomic_load_n(&g_socket_btree, __ATOMIC_ACQUIRE);
  if (tree) return tree;
  static pthread_mutex_t init = PTHREAD_MUTEX_INITIALIZER;
  vek::ScopedLock once(init);
  if (!g_socket_btree) {
    _btree_create_ex(&tree, nullptr, nullptr, BTREE_OPTION_NO_INSTRUMENT, kSource, __LINE__);
    __atomic_store_n(&g_socket_btree, tree, __ATOMIC_RELEASE);
  }
  return g_socket_btree;
}

void first_use() {
  vek::net::ignore_sigpipe_once();
  registry();
}

void install_tcp(ABSTRACT_SOCKET* s) {
  s->type = SOCKET_TYPE_STREAM;
  install_layer(s, {tcp_send, tcp_send2, tcp_recv, tcp_recv2, tcp_close});
}

// A descriptor of 0 means "not open" in the records, so a socket that got
// descriptor 0 (standard input was closed) is moved above it.
int socket_above_zero(int fd) {
  if (fd != 0) return fd;
  int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
  int saved = errno;
  close(fd);
  errno = saved;
  return moved;
}

int new_stream_descriptor() { return socket_above_zero(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP)); }

int set_int_option(int fd, int level, int name, int value) {
  return setsockopt(fd, level, name, &value, sizeof(value));
}

int set_linger(int fd, int seconds) {
  struct linger l;
  l.l_onoff = 1;
  l.l_linger = seconds;
  return setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof(l));
}

int set_buffers(int fd) {
  if (set_int_option(fd, SOL_SOCKET, SO_SNDBUF, kBufferSize) != 0) return -1;
  return set_int_option(fd, SOL_SOCKET, SO_RCVBUF, kBufferSize);
}

int set_blocking(int fd, bool blocking) {
  int flags = fcntl(fd, F_GETFL, 0);
  if (flags < 0) return -1;
  int wanted = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
  return wanted == flags ? 0 : fcntl(fd, F_SETFL, wanted);
}

// ---- connect ---------------------------------------------------------------

// Closes the half-made connection and records why it failed.
int connect_failed(ABSTRACT_SOCKET* s, int code, int err) {
  if (s->s != 0) socket_close(s);
  s->err = err;
  return code;
}

int connect_errno(ABSTRACT_SOCKET* s, int code, const char* call) {
  const int e = errno;
  log_vek_error("socket_connect_ex2(%s:%d): %s failed[%d]\n", text_or_null(s->file), s->line, call, e);
  return connect_failed(s, code, e);
}

int open_connect_descriptor(ABSTRACT_SOCKET* s) {
  int fd = -1;
  for (int attempt = 0; attempt < kConnectSocketAttempts && fd <= 0; ++attempt) fd = new_stream_descriptor();
  if (fd <= 0) return connect_errno(s, ERR_SOCKET_CREATE, "socket");
  s->s = fd;
  return 0;
}

int set_connect_options(ABSTRACT_SOCKET* s, int options) {
  const int fd = s->s;
  if ((options & SOCKET_OPTION_NODELAY) && set_int_option(fd, IPPROTO_TCP, TCP_NODELAY, 1) != 0)
    return connect_errno(s, ERR_SOCKET_OPTION, "setsockopt(TCP_NODELAY)");
  if (set_int_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1) != 0)
    return connect_errno(s, ERR_SOCKET_OPTION, "setsockopt(SO_KEEPALIVE)");
  if (set_int_option(fd, SOL_SOCKET, SO_OOBINLINE, 1) != 0) s->err = errno;  // not needed to go on
  // Linger on with 0 seconds: close resets the connection at once.
  if (set_linger(fd, 0) != 0) return connect_errno(s, ERR_SOCKET_OPTION, "setsockopt(SO_LINGER)");
  if ((options & SOCKET_OPTION_BUFFERS) && set_buffers(fd) != 0)
    return connect_errno(s, ERR_SOCKET_OPTION, "setsockopt(SO_SNDBUF/SO_RCVBUF)");
  return 0;
}

// Resolves the peer text into sin; a port is required to connect.
int resolve_peer(ABSTRACT_SOCKET* s, const char* addr, struct sockaddr_in* sin) {
  set_peer(s, copy_text(addr, __LINE__));
  int rc = addr && !s->peer ? ERR_NO_MEMORY : make_addr(s->peer, sin);
  if (rc == 0 && sin->sin_port == 0) rc = ERR_INVALID_PARAMETER;
  if (rc != 0) {
    log_result(s, "connect(make_addr)", rc, 0);
    return connect_failed(s, rc, rc);
  }
  s->peer_addr = ntohl(sin->sin_addr.s_addr);
  s->peer_port = ntohs(sin->sin_port);
  return 0;
}

// Waits for the outcome of a connect in progress, as select would report
// it: the exception set holds urgent data only, errors make it writable.
int await_connect(ABSTRACT_SOCKET* s, int timeout) {
  vek::net::Deadline deadline(timeout);
  struct pollfd p = {s->s, POLLOUT | POLLPRI, 0};
  int n;
  do {
    p.revents = 0;
    n = poll(&p, 1, timeout < 0 ? -1 : deadline.left());
  } while (n < 0 && errno == EINTR);
  if (n == 0) {
    log_result(s, "connect(timeout)", ERR_TIMEOUT, 0);
    return connect_failed(s, ERR_TIMEOUT, ERR_TIMEOUT);
  }
  if (n < 0) {
    const int e = errno;
    log_result(s, "connect(select)", ERR_SOCKET_SEND_FAILED, e);
    return connect_failed(s, ERR_SOCKET_SEND_FAILED, e);
  }
  if (p.revents & POLLPRI) {
    log_result(s, "connect()", ERR_SOCKET_CONNECT, 0);
    return connect_failed(s, ERR_SOCKET_CONNECT, ERR_SOCKET_CONNECT);
  }
  if (!(p.revents & (POLLOUT | POLLERR | POLLHUP))) return connect_failed(s, ERR_SOCKET_FAILED, EBADF);
  int so_error = 0;
  socklen_t len = sizeof(so_error);
  if (getsockopt(s->s, SOL_SOCKET, SO_ERROR, &so_error, &len) != 0) {
    const int e = errno;
    log_result(s, "connect()", ERR_SOCKET_OPTION, e);
    return connect_failed(s, ERR_SOCKET_OPTION, e);
  }
  if (so_error != 0) {
    log_result(s, "connect()", ERR_SOCKET_FAILED, so_error);
    return connect_failed(s, ERR_SOCKET_FAILED, so_error);
  }
  s->connect_time = time_now();
  log_result(s, "connect()", 0, 0);
  return 0;
}

// ---- listen and accept -------------------------------------------------------

int listen_failed(SERVER_SOCKET* srv, int code, const char* call) {
  srv->err = errno;
  log_vek_error("socket_listen(%s): %s failed[%d]\n", text_or_null(srv->laddr), call, srv->err);
  return code;
}

void* accept_failed(SERVER_SOCKET* srv, int err) {
  srv->err = err;
  return nullptr;
}

// Waits until a client is waiting; false with the reason in err.
bool await_client(SERVER_SOCKET* srv, int timeout) {
  if (timeout == -1) return true;
  if (timeout < -1) {
    srv->err = EINVAL;
    return false;
  }
  switch (vek::net::wait_fd(srv->s, false, vek::net::Deadline(timeout))) {
    case vek::net::Ready::yes:
      return true;
    case vek::net::Ready::timeout:
      srv->err = ERR_SOCKET_TIMEOUT;
      return false;
    default:
      srv->err = errno;
      return false;
  }
}

int accept_descriptor(SERVER_SOCKET* srv, struct sockaddr_in* sin) {
  int fd;
  do {
    socklen_t len = sizeof(*sin);
    fd = accept4(srv->s, reinterpret_cast<struct sockaddr*>(sin), &len, SOCK_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  return fd < 0 ? fd : socket_above_zero(fd);
}

int set_accepted_options(int fd, int options) {
  if (set_int_option(fd, IPPROTO_TCP, TCP_NODELAY, 1) != 0) return -1;
  if (set_linger(fd, kAcceptLingerSeconds) != 0) return -1;
  if ((options & SOCKET_OPTION_BUFFERS) && set_buffers(fd) != 0) return -1;
  return 0;
}

// ---- instrumentation ---------------------------------------------------------

unsigned int load(const unsigned int& v) { return __atomic_load_n(&v, __ATOMIC_RELAXED); }

void render_header(JSON* row) {
  static const char* const kTitles[] = {"Peer", "Sending", "Receiving"};
  vek::add_titles(row, kTitles, 3);
}

JSON* peer_json(const ABSTRACT_SOCKET* s) {
  vek::ScopedLock guard(g_peer_lock);
  return s->peer ? json_CreateString(s->peer) : json_CreateNull();
}

void render_row(const void* item, JSON* row) {
  auto* s = as_socket(item);
  json_AddItemToArray(row, peer_json(s));
  vek::add_number(row, load(s->current_send));
  vek::add_number(row, load(s->current_recv));
}

void render_detail(const void* item, JSON* object) {
  auto* s = as_socket(item);
  json_AddItemToObject(object, "name", peer_json(s));
  vek::add_position(object, "created by file", s->file, s->line);
  vek::add_text(object, "sending", format("%u", load(s->current_send)));
  vek::add_text(object, "receiving", format("%u", load(s->current_recv)));
  vek::add_text(object, "bytes in", format("%u", load(s->bytes_in)));
  vek::add_text(object, "bytes out", format("%u", load(s->bytes_out)));
  const long long connected = __atomic_load_n(&s->connect_time, __ATOMIC_RELAXED);
  vek::add_text(object, "connect time", format("%lld ms ago", time_now() - connected));
  vek::add_count(object, "last error", __atomic_load_n(&s->err, __ATOMIC_RELAXED));
}

// ---- dispatchers -------------------------------------------------------------

void count(unsigned int& counter, unsigned int n) { __atomic_fetch_add(&counter, n, __ATOMIC_RELAXED); }
void uncount(unsigned int& counter) { __atomic_fetch_sub(&counter, 1u, __ATOMIC_RELAXED); }

// The length a send asked for: -1 stands for the text and its terminator.
unsigned int requested_send_length(const char* data, int len) {
  if (len >= 0) return (unsigned int)len;
  return len == -1 && data ? (unsigned int)std::strlen(data) + 1 : 0;
}

template <class Slot, class... Args>
int dispatch_send(void* socket, Slot ABSTRACT_SOCKET::*slot, const char* data, int len, Args... more) {
  if (!socket) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(socket);
  Slot fn = s->*slot;
  if (!fn) return ERR_SOCKET_NO_OPERATION;
  if (s->s == 0) return ERR_SOCKET_NOT_OPEN;
  count(s->bytes_out, requested_send_length(data, len));
  count(s->current_send, 1);
  int rc = fn(s, data, len, more...);
  uncount(s->current_send);
  return rc;
}

}  // namespace

void vek::net::ignore_sigpipe_once() {
  if (__atomic_exchange_n(&g_once, 1, __ATOMIC_ACQ_REL) == 0) signal(SIGPIPE, SIG_IGN);
}

void* socket_instrument_handle(void) {
  return vek::lazy_instrument_group(&g_socket_instrument_handle, "socket_instrument_handle()", render_header,
                                    render_row, render_detail);
}

// ---- creation and teardown -----------------------------------------------------

int _socket_create(void** handle, const char* file, int line) {
  if (!handle) return ERR_INVALID_HANDLE;
  first_use();
  auto* s = vek::alloc_record<ABSTRACT_SOCKET>(kSource, line);
  if (!s) {
    *handle = nullptr;
    return ERR_NO_MEMORY;
  }
  install_tcp(s);
  s->file = file;
  s->line = line;
  // A socket missing from the registry would be invisible to
  // socket_foreach: one that cannot be filed is not made.
  if (btree_insert(registry(), s) != s) {
    _vekFree(s, kSource, __LINE__);
    *handle = nullptr;
    return ERR_NO_MEMORY;
  }
  instrument_add(socket_instrument_handle(), s);
  *handle = s;
  return 0;
}

int socket_delete(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(handle);
  instrument_remove(vek::existing_group(&g_socket_instrument_handle), s);
  if (s->s != 0)
    socket_close(s);
  else
    release_layer(s);
  set_peer(s, nullptr);
  btree_delete_by_object(registry(), s);
  _vekFree(s, kSource, __LINE__);
  return 0;
}

int socket_close(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(handle);
  if (s->s == 0) {
    log_vek_error("socket_close(%s:%d): failed[socket is zero]\n", text_or_null(s->file), s->line);
    return ERR_SOCKET_NOT_OPEN;
  }
  int rc = 0;
  if (s->type == SOCKET_TYPE_STREAM && s->a_close) rc = s->a_close(s);
  if (s->type == SOCKET_TYPE_STREAM || s->type == SOCKET_TYPE_SERVER) {
    if (close(s->s) != 0) {
      s->err = errno;
      log_vek_error("socket_close(%s:%d): failed [%d]\n", text_or_null(s->file), s->line, s->err);
      rc = ERR_SOCKET_FAILED;
    }
  }
  s->s = 0;
  return rc;
}

int socket_shutdown(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(handle);
  if (s->s == 0) return ERR_SOCKET_NOT_OPEN;
  if ((s->type == SOCKET_TYPE_STREAM || s->type == SOCKET_TYPE_SERVER) && shutdown(s->s, SHUT_RDWR) != 0) {
    s->err = errno;
    log_vek_error("socket_shutdown(%s:%d): failed [%d]\n", text_or_null(s->file), s->line, s->err);
    return ERR_SOCKET_FAILED;
  }
  return 0;
}

// ---- connecting ------------------------------------------------------------------

int socket_connect_ex2(void* handle, const char* addr, int timeout, int options) {
  if (!handle) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(handle);
  // A socket that is still open is closed first, letting its layer go.
  if (s->s != 0)
    socket_close(s);
  else
    release_layer(s);
  install_tcp(s);
  if (timeout < -1) {
    s->err = ERR_INVALID_PARAMETER;
    return ERR_INVALID_PARAMETER;
  }
  int rc = open_connect_descriptor(s);
  if (rc == 0) rc = set_connect_options(s, options);
  if (rc != 0) return rc;
  if (set_blocking(s->s, false) != 0) return connect_errno(s, ERR_SOCKET_FCNTL, "fcntl(O_NONBLOCK)");

  struct sockaddr_in sin;
  rc = resolve_peer(s, addr, &sin);
  if (rc != 0) return rc;
  if (connect(s->s, reinterpret_cast<struct sockaddr*>(&sin), sizeof(sin)) != 0 && errno != EINPROGRESS) {
    const int e = errno;
    log_result(s, "connect()", ERR_SOCKET_CONNECT, e);
    return connect_failed(s, ERR_SOCKET_CONNECT, e);
  }
  if (set_blocking(s->s, true) != 0) return connect_errno(s, ERR_SOCKET_FCNTL, "fcntl(blocking)");
  return await_connect(s, timeout);
}

int socket_connect_ex(void* handle, const char* addr, int timeout) {
  return socket_connect_ex2(handle, addr, timeout, SOCKET_OPTION_NODELAY);
}

int socket_connect(void* handle, const char* addr) { return socket_connect_ex(handle, addr, 5000); }

int socket_reconnect(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  // connect replaces peer only after copying the text it is given.
  return socket_connect(handle, as_socket(handle)->peer);
}

// ---- listening and accepting --------------------------------------------------------

int _socket_listen(void** server_handle, const char* addr, const char* file, int line) {
  if (!server_handle) return ERR_INVALID_HANDLE;
  first_use();
  auto* srv = vek::alloc_record<SERVER_SOCKET>(kSource, line);
  *server_handle = srv;
  if (!srv) return ERR_NO_MEMORY;
  srv->type = SOCKET_TYPE_SERVER;
  srv->file = file;
  srv->line = line;
  int fd = new_stream_descriptor();
  if (fd <= 0) return listen_failed(srv, ERR_SOCKET_CREATE, "socket");
  srv->s = fd;
  srv->laddr = copy_text(addr, __LINE__);
  if (addr && !srv->laddr) return srv->err = ERR_NO_MEMORY;
  struct sockaddr_in sin;
  int rc = make_addr(srv->laddr, &sin);
  if (rc != 0) return srv->err = rc;
  if (set_int_option(fd, SOL_SOCKET, SO_REUSEADDR, 1) != 0)
    return listen_failed(srv, ERR_SOCKET_OPTION, "setsockopt(SO_REUSEADDR)");
  if (set_int_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1) != 0)
    return listen_failed(srv, ERR_SOCKET_OPTION, "setsockopt(SO_KEEPALIVE)");
  if (bind(fd, reinterpret_cast<struct sockaddr*>(&sin), sizeof(sin)) != 0)
    return listen_failed(srv, ERR_SOCKET_BIND, "bind");
  if (listen(fd, kListenBacklog) != 0) return listen_failed(srv, ERR_SOCKET_LISTEN, "listen");
  return 0;
}

void* socket_accept_ex(void* server_handle, int timeout, int options) {
  if (!server_handle) return nullptr;
  SERVER_SOCKET* srv = as_server(server_handle);
  if (srv->s == 0) return accept_failed(srv, ERR_SOCKET_NOT_LISTENING);
  if (!await_client(srv, timeout)) return nullptr;
  struct sockaddr_in sin;
  std::memset(&sin, 0, sizeof(sin));
  const int fd = accept_descriptor(srv, &sin);
  if (fd < 0) return accept_failed(srv, errno);
  if (set_accepted_options(fd, options) != 0) {
    const int e = errno;
    close(fd);
    return accept_failed(srv, e);
  }
  void* handle = nullptr;
  int rc = _socket_create(&handle, srv->file, srv->line);
  char* peer = rc == 0 ? make_string_from_addr(&sin) : nullptr;
  if (rc != 0 || !peer) {
    close(fd);
    if (handle) socket_delete(handle);
    return accept_failed(srv, rc != 0 ? rc : ERR_NO_MEMORY);
  }
  ABSTRACT_SOCKET* s = as_socket(handle);
  s->s = fd;
  set_peer(s, peer);
  s->peer_addr = ntohl(sin.sin_addr.s_addr);
  s->peer_port = ntohs(sin.sin_port);
  s->connect_time = time_now();
  return s;
}

void* socket_accept(void* server_handle, int timeout) { return socket_accept_ex(server_handle, timeout, 0); }

int socket_unlisten(void* server_handle) {
  if (!server_handle) return ERR_INVALID_HANDLE;
  SERVER_SOCKET* srv = as_server(server_handle);
  if (srv->laddr) _vekFree(srv->laddr, kSource, __LINE__);
  if (srv->s > 0) close(srv->s);
  _vekFree(srv, kSource, __LINE__);
  return 0;
}

// ---- dispatchers ------------------------------------------------------------------------

int socket_send(void* socket, const char* data, int len) { return dispatch_send(socket, &ABSTRACT_SOCKET::a_send, data, len); }

int socket_send2(void* socket, const char* data, int len, int timeout) {
  return dispatch_send(socket, &ABSTRACT_SOCKET::a_send2, data, len, timeout);
}

int socket_recv(void* socket, char* data, int len, int timeout) {
  if (!socket) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(socket);
  if (!s->a_recv) return ERR_SOCKET_NO_OPERATION;
  if (!data) return ERR_INVALID_PARAMETER;
  if (s->s == 0) return ERR_SOCKET_NOT_OPEN;
  count(s->current_recv, 1);
  int rc = s->a_recv(s, data, len, timeout);
  uncount(s->current_recv);
  // The requested length, whatever arrived.
  if (len > 0) count(s->bytes_in, (unsigned int)len);
  return rc;
}

int socket_recv2(void* socket, char* data, int* len, int timeout) {
  if (!socket) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(socket);
  if (!s->a_recv2) return ERR_SOCKET_NO_OPERATION;
  if (!data || !len) return ERR_INVALID_PARAMETER;
  if (s->s == 0) return ERR_SOCKET_NOT_OPEN;
  count(s->current_recv, 1);
  int rc = s->a_recv2(s, data, len, timeout);
  uncount(s->current_recv);
  if (*len > 0) count(s->bytes_in, (unsigned int)*len);
  return rc;
}

// ---- queries and settings ---------------------------------------------------------------

int socket_isopen(const void* handle) { return handle && as_socket(handle)->s > 0 ? 1 : 0; }

int socket_descriptor(const void* handle) { return handle ? as_socket(handle)->s : ERR_INVALID_HANDLE; }

const char* socket_peer(const void* handle) { return handle ? as_socket(handle)->peer : nullptr; }

unsigned int socket_peer_address(const void* handle) {
  return handle ? as_socket(handle)->peer_addr : (unsigned int)ERR_INVALID_HANDLE;
}

unsigned short socket_peer_port(const void* handle) {
  return handle ? as_socket(handle)->peer_port : (unsigned short)ERR_INVALID_HANDLE;
}

int socket_error(const void* socket) { return socket ? as_socket(socket)->err : ERR_INVALID_HANDLE; }

int socket_get_statistics(const void* socket, long long* connect_time, unsigned int* bytes_in,
                          unsigned int* bytes_out) {
  if (!socket) return ERR_INVALID_HANDLE;
  const ABSTRACT_SOCKET* s = as_socket(socket);
  if (connect_time) *connect_time = s->connect_time;
  if (bytes_in) *bytes_in = load(s->bytes_in);
  if (bytes_out) *bytes_out = load(s->bytes_out);
  return 0;
}

int socket_set_log_callbacks(void* socket, socket_log_buffer lb, socket_log_result lr) {
  if (!socket) return ERR_INVALID_HANDLE;
  as_socket(socket)->a_log_b = lb;
  as_socket(socket)->a_log_a = lr;
  return 0;
}

int socket_set_owner(void* socket, const char* owner) {
  if (!socket) return ERR_INVALID_HANDLE;
  as_socket(socket)->owner = owner;
  return 0;
}

const char* socket_get_owner(const void* socket) { return socket ? as_socket(socket)->owner : nullptr; }

int socket_local_address(void* handle, char** local_address) {
  if (!handle) return ERR_INVALID_HANDLE;
  if (!local_address) return ERR_INVALID_PARAMETER;
  *local_address = nullptr;
  ABSTRACT_SOCKET* s = as_socket(handle);
  if (s->s == 0) return ERR_SOCKET_NOT_OPEN;
  struct sockaddr_in sin;
  socklen_t len = sizeof(sin);
  if (getsockname(s->s, reinterpret_cast<struct sockaddr*>(&sin), &len) != 0) {
    s->err = errno;
    return ERR_SOCKET_FAILED;
  }
  *local_address = make_string_from_addr(&sin);
  return *local_address ? 0 : ERR_NO_MEMORY;
}

int socket_set_io_queues(void* handle, int send_queue, int recv_queue) {
  if (!handle) return ERR_INVALID_HANDLE;
  ABSTRACT_SOCKET* s = as_socket(handle);
  if (s->s == 0) return ERR_SOCKET_NOT_OPEN;
  if ((send_queue != -1 && set_int_option(s->s, SOL_SOCKET, SO_SNDBUF, send_queue) != 0) ||
      (recv_queue != -1 && set_int_option(s->s, SOL_SOCKET, SO_RCVBUF, recv_queue) != 0)) {
    s->err = errno;
    return ERR_SOCKET_OPTION;
  }
  return 0;
}

int socket_check_queues(const void* handle, int* recvq, int* sendq) {
  if (!handle) return ERR_INVALID_HANDLE;
  const int fd = as_socket(handle)->s;
  int n = 0;
  if (recvq) *recvq = fd != 0 && ioctl(fd, FIONREAD, &n) == 0 ? n : 0;
  n = 0;
  if (sendq) *sendq = fd != 0 && ioctl(fd, TIOCOUTQ, &n) == 0 ? n : 0;
  return 0;
}

int socket_select(int maxfd, void* rd_set, void* wr_set, void* ex_set, int timeout) {
  // An fd_set holds descriptors below FD_SETSIZE only; select would write
  // past the caller's sets for a larger one.
  if (maxfd >= FD_SETSIZE || maxfd < -1) return ERR_INVALID_PARAMETER;
  struct timeval tv;
  tv.tv_sec = timeout / 1000;
  tv.tv_usec = (timeout % 1000) * 1000;
  int n = select(maxfd + 1, static_cast<fd_set*>(rd_set), static_cast<fd_set*>(wr_set), static_cast<fd_set*>(ex_set),
                 timeout < 0 ? nullptr : &tv);
  if (n == 0) return ERR_SOCKET_TIMEOUT;
  if (n < 0) {
    log_vek_error("socket_select(): failed [%d] [%s]\n", n, strerror(errno));
    return ERR_SOCKET_FAILED;
  }
  return n;
}

int socket_get_fd_setsize(void) { return FD_SETSIZE; }

void socket_foreach(btree_fefunc func, void* custom) {
  void* tree = registry();
  if (func && tree) btree_foreach(tree, func, custom);
}

const char* socket_get_hostname(void) {
  if (gethostname(g_socket_hostname, sizeof(g_socket_hostname) - 1) != 0) return nullptr;
  g_socket_hostname[sizeof(g_socket_hostname) - 1] = '\0';
  return g_socket_hostname;
}
