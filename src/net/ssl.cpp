// TLS contexts, and TLS morphed onto a connected socket.
//
// The morph swaps the socket's five operation slots for the _ssl_*
// functions below and keeps the connection's state (_SSLO) in the socket's
// handle field. The descriptor stays blocking: a positive time-out is spent
// waiting for readiness before OpenSSL is called, and OpenSSL itself then
// blocks until the record it works on is complete.
//
// OpenSSL reports failures on a per-thread error queue. Every call into it
// here starts with an empty queue (so SSL_get_error is reliable) and leaves
// it empty, keeping the code and text in the context or socket record,
// where the caller reads them from any thread.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include <vekutil/socket.h>
#include <vekutil/ssl.h>
#include <vekutil/threads.h>

#include "core/internal.hpp"
#include "net/net.internal.hpp"

static_assert(offsetof(_SSLO, ssl) == 0);
static_assert(offsetof(_SSLO, errcode) == sizeof(void*));
static_assert(offsetof(_SSLO, errmsg) == sizeof(void*) + sizeof(int));
static_assert(sizeof(_SSLO::errmsg) == 513);

namespace {

constexpr const char* kSource = "src/ssl.c";
constexpr int kErrTextMax = 512;  // bytes ERR_error_string_n may write
constexpr int kDefaultSendTimeout = 10000;
// What SSL_get_error is compared with before a write is retried: OpenSSL's
// packed code for a bad write retry. SSL_get_error yields small numbers, so
// the retry is unreachable; the comparison is kept as it always was.
constexpr int kBadWriteRetry = 0x1409F07F;

struct _SSLO_CTX {
  SSL_CTX* ctx;
  char passwd[SSL_PASSWD_MAX + 1];
  int errcode;
  char errmsg[kErrTextMax + 1];
};

using vek::net::as_socket;
using vek::net::log_result;
using vek::net::install_layer;
using vek::net::release_layer;

_SSLO_CTX* as_ctx(void* ctx) { return static_cast<_SSLO_CTX*>(ctx); }

// The socket's TLS state, or NULL when the socket is not morphed by this
// module (another layer's state in handle is never taken for ours).
_SSLO* tls_state(ABSTRACT_SOCKET* sock) {
  if (!sock || sock->a_close != _ssl_close) return nullptr;
  return static_cast<_SSLO*>(sock->handle);
}

// The connection of a morphed socket whose handshake got as far as SSL_new.
SSL* tls_connection(void* handle) {
  _SSLO* st = tls_state(as_socket(handle));
  return st ? st->ssl : nullptr;
}

// ---- error texts ------------------------------------------------------------

// The text of code, followed by the first reason OpenSSL queued (the root
// cause: SSL_get_error's codes say only which kind of failure it was), or by
// the system error behind a failed socket call.
void describe(int code, char* errmsg, bool with_queue, int saved_errno) {
  ERR_error_string_n(static_cast<unsigned long>(static_cast<unsigned int>(code)), errmsg, kErrTextMax);
  const unsigned long reason = with_queue ? ERR_get_error() : 0;
  size_t used = std::strlen(errmsg);
  if (reason != 0 && used + 2 < kErrTextMax) {
    std::memcpy(errmsg + used, ": ", 2);
    ERR_error_string_n(reason, errmsg + used + 2, kErrTextMax - used - 2);
  } else if (with_queue && code == SSL_ERROR_SYSCALL && saved_errno != 0) {
    std::snprintf(errmsg + used, kErrTextMax + 1 - used, ": %s", std::strerror(saved_errno));
  }
  ERR_clear_error();
}

// A failed SSL_* call on a connection: SSL_get_error's code and its text.
void keep_connection_error(_SSLO* st, int ret) {
  const int saved_errno = errno;
  st->errcode = SSL_get_error(st->ssl, ret);
  describe(st->errcode, st->errmsg, true, saved_errno);
}

// A failed call that queued its reason: the queued code and its text.
void keep_queued_error(int* errcode, char* errmsg) {
  *errcode = static_cast<int>(ERR_get_error());
  describe(*errcode, errmsg, false, 0);
}

// ---- waiting for readiness --------------------------------------------------

long long monotonic_us() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// Waits until the descriptor is ready for events, spending at most
// *budget_us; the time spent is taken off the budget, so repeated waits of
// one call share it. 1 ready, 0 time-out, -1 failure (errno set). Signals
// do not cut the wait short.
int wait_ready(int fd, short events, long long* budget_us) {
  for (;;) {
    pollfd p{fd, events, 0};
    const long long started = monotonic_us();
    const int ms = static_cast<int>((*budget_us + 999) / 1000);
    const int r = poll(&p, 1, ms);
    *budget_us = std::max(0LL, *budget_us - (monotonic_us() - started));
    if (r > 0) return 1;  // readable, writable, or an error/hang-up the TLS call will report
    if (r == 0) return 0;
    if (errno != EINTR) return -1;
  }
}

// A time-out below -1 is refused before anything else happens.
int refuse_timeout(ABSTRACT_SOCKET* sock) {
  sock->err = errno;
  return ERR_SOCKET_FAILED;
}

// Looks at what arrived without blocking for more: 1 when application data
// (or the end of the stream, or a failure the read will report; its reason
// stays queued for it) is ready, 0 when the records were only TLS's own
// (session tickets, key updates), after which a blocking read would wait
// with no time-out at all.
int application_data_ready(SSL* ssl) {
  char byte;
  const long mode = SSL_get_mode(ssl);
  SSL_clear_mode(ssl, SSL_MODE_AUTO_RETRY);
  const int n = SSL_peek(ssl, &byte, 1);
  const bool more_needed = n <= 0 && SSL_get_error(ssl, n) == SSL_ERROR_WANT_READ;
  SSL_set_mode(ssl, mode);
  if (more_needed) ERR_clear_error();
  return more_needed ? 0 : 1;
}

// Before a read: waits until application data is there, unless the
// time-out says block inside OpenSSL or OpenSSL already holds decrypted
// bytes.
int wait_readable(ABSTRACT_SOCKET* sock, SSL* ssl, int timeout) {
  if (timeout < 1 || SSL_pending(ssl) > 0) return 0;
  long long budget_us = static_cast<long long>(timeout) * 1000;
  for (;;) {
    const int r = wait_ready(sock->s, POLLIN, &budget_us);
    if (r > 0 && application_data_ready(ssl)) return 0;
    if (r > 0) continue;
    sock->err = r == 0 ? ERR_SOCKET_TIMEOUT : errno;
    return r == 0 ? ERR_SOCKET_TIMEOUT : ERR_SOCKET_FAILED;
  }
}

// SSL_read gave ret <= 0: the peer's close (end of stream, close-notify, or
// a fatal alert, which also ends the peer's side) or a TLS failure. An
// alert's reason is kept for ssl_error all the same.
int read_failed(ABSTRACT_SOCKET* sock, _SSLO* st, int ret) {
  if (ret == 0 || (SSL_get_shutdown(st->ssl) & SSL_RECEIVED_SHUTDOWN)) {
    if (ERR_peek_error() != 0) keep_connection_error(st, ret);
    sock->err = ERR_SOCKET_CLOSED;
    return ERR_SOCKET_CLOSED;
  }
  keep_connection_error(st, ret);
  return ERR_SSL_IO;
}

// Checks shared by the four data operations: true when the call may go on,
// else *result holds what to return.
bool usable(ABSTRACT_SOCKET* sock, _SSLO*& st, int timeout, int* result) {
  st = tls_state(sock);
  if (!st || !st->ssl) {
    *result = ERR_INVALID_HANDLE;
    return false;
  }
  if (timeout < -1) {
    *result = refuse_timeout(sock);
    return false;
  }
  return true;
}

// ---- handshakes -------------------------------------------------------------

int handshake(void* handle, void* ctx, bool client) {
  ABSTRACT_SOCKET* sock = as_socket(handle);
  if (!sock) return ERR_INVALID_HANDLE;
  // Descriptor 0 is "not open" to the socket layer: TLS on it would talk to
  // standard input, and closing would never release the state.
  if (sock->s <= 0) return ERR_SOCKET_NOT_OPEN;
  const int morphed = _ssl_morph(sock);
  if (morphed != 0) return morphed;
  _SSLO* st = tls_state(sock);
  if (!st) return ERR_INVALID_HANDLE;
  if (!ctx) return ERR_SSL_NO_CONTEXT;
  ERR_clear_error();
  st->ssl = SSL_new(as_ctx(ctx)->ctx);
  if (!st->ssl) {
    keep_queued_error(&st->errcode, st->errmsg);
    return ERR_SSL_CONNECT;
  }
  SSL_set_mode(st->ssl, SSL_MODE_AUTO_RETRY);
  const int failure = client ? ERR_SSL_CONNECT : ERR_SSL_ACCEPT;
  if (SSL_set_fd(st->ssl, sock->s) != 1) {
    keep_queued_error(&st->errcode, st->errmsg);
    return failure;
  }
  const int ret = client ? SSL_connect(st->ssl) : SSL_accept(st->ssl);
  if (ret > 0) return 0;
  keep_connection_error(st, ret);
  return failure;
}

// ---- contexts ---------------------------------------------------------------

// OpenSSL loaders return 1 on success.
int loaded(_SSLO_CTX* c, int openssl_result) {
  if (openssl_result == 1) return 0;
  keep_queued_error(&c->errcode, c->errmsg);
  return ERR_SSL_CTX_FILE;
}

void install_passwd_cb(_SSLO_CTX* c) {
  SSL_CTX_set_default_passwd_cb(c->ctx, _ssl_ctx_passwd_cb);
  SSL_CTX_set_default_passwd_cb_userdata(c->ctx, c->passwd);
}

// The common start of the loaders taking a file: 0 to go on, or the result.
int check_loader(void* ctx, const char* cfile) {
  if (!ctx) return ERR_INVALID_HANDLE;
  if (!cfile) return ERR_INVALID_PARAMETER;
  ERR_clear_error();
  return 0;
}

}  // namespace

extern "C" {

// ---- contexts ---------------------------------------------------------------

int ssl_ctx_create(void** ctx) {
  if (!ctx) return ERR_INVALID_PARAMETER;
  *ctx = nullptr;
  auto* c = vek::alloc_record<_SSLO_CTX>(kSource, __LINE__);
  if (!c) return ERR_NO_MEMORY;
  c->ctx = SSL_CTX_new(TLS_method());
  if (!c->ctx) {
    ERR_clear_error();
    vek::release(c, kSource, __LINE__);
    return ERR_SSL_CTX_CREATE;
  }
  // No session is ever resumed: no server cache, and no tickets a client
  // could come back with.
  SSL_CTX_set_session_cache_mode(c->ctx, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(c->ctx, 0);
  // A peer that closes the connection without a close-notify ends the
  // stream like one that sends it (ERR_SOCKET_CLOSED), as many servers do.
  SSL_CTX_set_options(c->ctx, SSL_OP_NO_TICKET | SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_mode(c->ctx, SSL_MODE_AUTO_RETRY);
  *ctx = c;
  return 0;
}

int ssl_ctx_delete(void* ctx) {
  _SSLO_CTX* c = as_ctx(ctx);
  if (!c) return ERR_INVALID_HANDLE;
  SSL_CTX_free(c->ctx);
  vek::release(c, kSource, __LINE__);
  return 0;
}

int ssl_ctx_set_key_file(void* ctx, const char* cfile) {
  if (const int r = check_loader(ctx, cfile)) return r;
  _SSLO_CTX* c = as_ctx(ctx);
  install_passwd_cb(c);
  return loaded(c, SSL_CTX_use_PrivateKey_file(c->ctx, cfile, SSL_FILETYPE_PEM));
}

int ssl_ctx_set_chain_file(void* ctx, const char* cfile) {
  if (const int r = check_loader(ctx, cfile)) return r;
  _SSLO_CTX* c = as_ctx(ctx);
  return loaded(c, SSL_CTX_use_certificate_chain_file(c->ctx, cfile));
}

int ssl_ctx_set_calist_file(void* ctx, const char* cfile) {
  if (const int r = check_loader(ctx, cfile)) return r;
  _SSLO_CTX* c = as_ctx(ctx);
  return loaded(c, SSL_CTX_load_verify_locations(c->ctx, cfile, nullptr));
}

int ssl_ctx_set_calist_load_system(void* ctx) {
  _SSLO_CTX* c = as_ctx(ctx);
  if (!c) return ERR_INVALID_HANDLE;
  ERR_clear_error();
  return loaded(c, SSL_CTX_set_default_verify_paths(c->ctx));
}

int ssl_ctx_set_packed_file(void* ctx, const char* cfile) {
  if (const int r = check_loader(ctx, cfile)) return r;
  _SSLO_CTX* c = as_ctx(ctx);
  int r = loaded(c, SSL_CTX_use_certificate_chain_file(c->ctx, cfile));
  if (r == 0) r = loaded(c, SSL_CTX_load_verify_locations(c->ctx, cfile, nullptr));
  if (r == 0) r = loaded(c, SSL_CTX_set_default_verify_paths(c->ctx));
  if (r != 0) return r;
  install_passwd_cb(c);
  return loaded(c, SSL_CTX_use_PrivateKey_file(c->ctx, cfile, SSL_FILETYPE_PEM));
}

int ssl_ctx_set_passwd(void* ctx, const char* passwd) {
  _SSLO_CTX* c = as_ctx(ctx);
  if (!c) return ERR_INVALID_HANDLE;
  if (!passwd) return ERR_INVALID_PARAMETER;
  // Pads with zeros, so a shorter phrase replaces a longer one cleanly; the
  // last byte of the field is never written and stays the terminator.
  std::strncpy(c->passwd, passwd, SSL_PASSWD_MAX);
  return 0;
}

int _ssl_ctx_passwd_cb(char* buf, int size, int flag, void* passwd) {
  (void)flag;
  if (!buf || size <= 0) return 0;
  std::strncpy(buf, passwd ? static_cast<const char*>(passwd) : "", static_cast<size_t>(size));
  buf[size - 1] = '\0';
  return static_cast<int>(std::strlen(buf));
}

int ssl_ctx_set_verify(void* ctx, int require_peer_certificate, int verify_peer) {
  _SSLO_CTX* c = as_ctx(ctx);
  if (!c) return ERR_INVALID_HANDLE;
  const int mode = (verify_peer ? SSL_VERIFY_PEER : 0) | (require_peer_certificate ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0);
  SSL_CTX_set_verify(c->ctx, mode, nullptr);
  return 0;
}

int ssl_ctx_check(void* ctx) {
  _SSLO_CTX* c = as_ctx(ctx);
  if (!c) return 0;
  ERR_clear_error();
  if (SSL_CTX_check_private_key(c->ctx)) return 1;
  keep_queued_error(&c->errcode, c->errmsg);
  return 0;
}

const char* ssl_ctx_error(void* ctx) {
  _SSLO_CTX* c = as_ctx(ctx);
  return c ? c->errmsg : nullptr;
}

SSL_CTX* ssl_ctx_get_raw_object(void* ctx) {
  _SSLO_CTX* c = as_ctx(ctx);
  return c ? c->ctx : nullptr;
}

// ---- connections ------------------------------------------------------------

int ssl_connect(void* handle, void* ctx) { return handshake(handle, ctx, true); }

int ssl_accept(void* handle, void* ctx) { return handshake(handle, ctx, false); }

X509* ssl_get_peer_certificate(void* handle) {
  SSL* ssl = tls_connection(handle);
  return ssl ? SSL_get1_peer_certificate(ssl) : nullptr;
}

const char* ssl_get_cipher(void* handle) {
  SSL* ssl = tls_connection(handle);
  return ssl ? SSL_CIPHER_get_name(SSL_get_current_cipher(ssl)) : nullptr;
}

int ssl_verify_peer(void* handle) {
  SSL* ssl = tls_connection(handle);
  return ssl && SSL_get_verify_result(ssl) == X509_V_OK ? 1 : 0;
}

const char* ssl_error(void* handle) {
  _SSLO* st = tls_state(as_socket(handle));
  return st ? st->errmsg : nullptr;
}

SSL* ssl_get_raw_object(void* handle) { return tls_connection(handle); }

// ---- the socket operations --------------------------------------------------

int _ssl_morph(void* handle) {
  ABSTRACT_SOCKET* sock = as_socket(handle);
  if (!sock) return ERR_INVALID_HANDLE;
  release_layer(sock);
  auto* st = vek::alloc_record<_SSLO>(kSource, __LINE__);
  if (!st) return ERR_NO_MEMORY;
  sock->handle = st;
  install_layer(sock, {_ssl_send, _ssl_send2, _ssl_recv, _ssl_recv2, _ssl_close});
  return 0;
}

int _ssl_close(void* handle) {
  ABSTRACT_SOCKET* sock = as_socket(handle);
  _SSLO* st = tls_state(sock);
  if (!st) return ERR_INVALID_HANDLE;
  if (st->ssl) {
    // After a failed handshake or a fatal error there is no session to
    // close, and OpenSSL must not be asked to.
    if (SSL_is_init_finished(st->ssl)) SSL_shutdown(st->ssl);
    SSL_free(st->ssl);
    ERR_clear_error();
  }
  vek::release(st, kSource, __LINE__);
  sock->handle = nullptr;
  return 0;
}

int _ssl_send(void* handle, const char* buffer, int length) {
  return _ssl_send2(handle, buffer, length, kDefaultSendTimeout);
}

int _ssl_send2(void* handle, const char* buffer, int length, int timeout) {
  ABSTRACT_SOCKET* sock = as_socket(handle);
  _SSLO* st = nullptr;
  int result = 0;
  if (!usable(sock, st, timeout, &result)) return result;
  if (length < 0 || (!buffer && length > 0)) return ERR_INVALID_PARAMETER;
  // One budget for the whole call: waiting for room in one pass leaves less
  // for the next.
  long long budget_us = static_cast<long long>(std::max(timeout, 0)) * 1000;
  int sent = 0;
  while (sent < length) {
    if (timeout > 0) {
      const int ready = wait_ready(sock->s, POLLOUT, &budget_us);
      if (ready <= 0) {
        const int oserr = errno;
        const int code = ready == 0 ? ERR_SOCKET_TIMEOUT : ERR_SOCKET_SEND_FAILED;
        log_result(sock, "send(select)", code, oserr);
        sock->err = ready == 0 ? ERR_SOCKET_TIMEOUT : oserr;
        return code;
      }
    }
    ERR_clear_error();
    const int piece = std::min(length - sent, SSL_WRITE_CHUNK);
    const int n = SSL_write(st->ssl, buffer + sent, piece);
    if (n > 0) {
      sent += n;
      continue;
    }
    const int code = SSL_get_error(st->ssl, n);
    if (code == kBadWriteRetry) {
      thread_sleep(10);
      continue;
    }
    // Only a write that merely could not proceed yet is worth another pass;
    // anything else would repeat for ever.
    if (n == 0 && (code == SSL_ERROR_WANT_WRITE || code == SSL_ERROR_WANT_READ)) continue;
    st->errcode = code;
    describe(code, st->errmsg, true, errno);
    return ERR_SSL_IO;
  }
  return 0;
}

int _ssl_recv2(void* handle, char* buffer, int* length, int timeout) {
  ABSTRACT_SOCKET* sock = as_socket(handle);
  _SSLO* st = nullptr;
  int result = 0;
  if (!usable(sock, st, timeout, &result)) return result;
  if (!buffer || !length || *length < 0) return ERR_INVALID_PARAMETER;
  // A read of nothing would look like the peer's close.
  if (*length == 0) return 0;
  ERR_clear_error();
  if (const int w = wait_readable(sock, st->ssl, timeout)) return w;
  const int n = SSL_read(st->ssl, buffer, *length);
  if (n > 0) {
    *length = n;
    return 0;
  }
  *length = 0;
  return read_failed(sock, st, n);
}

int _ssl_recv(void* handle, char* buffer, int length, int timeout) {
  ABSTRACT_SOCKET* sock = as_socket(handle);
  _SSLO* st = nullptr;
  int result = 0;
  if (!usable(sock, st, timeout, &result)) return result;
  if (!buffer || length < 0) return ERR_INVALID_PARAMETER;
  if (length == 0) return 0;
  ERR_clear_error();
  if (const int w = wait_readable(sock, st->ssl, timeout)) return w;
  for (int total = 0; total < length;) {
    const int n = SSL_read(st->ssl, buffer + total, length - total);
    if (n <= 0) return read_failed(sock, st, n);
    total += n;
  }
  return 0;
}

}  // extern "C"
