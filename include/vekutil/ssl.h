/* TLS over an already connected socket, and TLS contexts.
 *
 * A context holds the configuration shared by many connections: private key,
 * certificate chain, CA list, key pass phrase and peer verification. A
 * connection is made by morphing a connected socket in place: ssl_connect or
 * ssl_accept swap the socket's send/receive/close operations for TLS ones
 * and run the handshake, after which socket_send / socket_recv / socket_close
 * speak TLS. The swap happens before the handshake and stays even when the
 * handshake fails, so the caller simply closes or deletes the socket.
 *
 * OpenSSL failures are never logged: their code and text stay in the
 * context (ssl_ctx_error) or in the socket's TLS state (ssl_error). One
 * socket's TLS state must be used by one thread at a time; a context may
 * serve many connections on many threads.
 *
 * The raw OpenSSL objects are reachable for what this interface does not
 * cover; their types are declared here by their struct tags so that this
 * header does not need OpenSSL's (struct ssl_ctx_st is SSL_CTX, struct ssl_st
 * is SSL, struct x509_st is X509).
 */
#ifndef VEKUTIL_SSL_H
#define VEKUTIL_SSL_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

struct ssl_st;
struct ssl_ctx_st;
struct x509_st;

/* The TLS state of one morphed socket, kept in the socket's handle field. */
typedef struct _SSLO {
  struct ssl_st* ssl; /* the connection; NULL when no context was given or SSL_new failed */
  int errcode;        /* last OpenSSL error code (SSL_get_error or ERR_get_error) */
  char errmsg[513];   /* its text */
} _SSLO;

/* Longest pass phrase kept by a context, and the largest piece a single
 * TLS write is given; longer sends are cut into pieces of this size. */
#define SSL_PASSWD_MAX 64
#define SSL_WRITE_CHUNK 64512

/* ---- Library set-up ------------------------------------------------------ */

/* Prepares OpenSSL and seeds the random generator; call once, from one
 * thread, before any other function here. Later calls do nothing. */
VEK_API void ssl_init(void);
/* The OpenSSL version text ("" before ssl_init). */
VEK_API extern char g_ssl_version[256];
VEK_API const char* ssl_get_version(void);
/* Always 1: TLS support is built in. */
VEK_API int ssl_is_available(void);

/* ---- Contexts ------------------------------------------------------------ */

/* *ctx is set to NULL first. 0; ERR_INVALID_PARAMETER for a NULL ctx,
 * ERR_NO_MEMORY, or ERR_SSL_CTX_CREATE when OpenSSL makes no context.
 * Session caching is off and protocol versions are OpenSSL's defaults. */
VEK_API int ssl_ctx_create(void** ctx);
/* The caller must not delete a context while connections made from it are
 * open. */
VEK_API int ssl_ctx_delete(void* ctx);

/* Loading key material from PEM files: 0, or ERR_SSL_CTX_FILE with the
 * OpenSSL error kept for ssl_ctx_error (ERR_INVALID_PARAMETER for a NULL file
 * name). Set the pass phrase first when the key is encrypted. */
VEK_API int ssl_ctx_set_key_file(void* ctx, const char* cfile);
VEK_API int ssl_ctx_set_chain_file(void* ctx, const char* cfile);
VEK_API int ssl_ctx_set_calist_file(void* ctx, const char* cfile);
VEK_API int ssl_ctx_set_calist_load_system(void* ctx);
/* One PEM file with everything: certificate chain, CA list (the same
 * certificates), then the system CA paths, then the private key. */
VEK_API int ssl_ctx_set_packed_file(void* ctx, const char* cfile);

/* Keeps at most SSL_PASSWD_MAX characters of passwd. */
VEK_API int ssl_ctx_set_passwd(void* ctx, const char* passwd);
/* The pass-phrase callback the key loaders install: copies the phrase given
 * as user data into buf (at most size bytes, always terminated) and returns
 * its length. */
VEK_API int _ssl_ctx_passwd_cb(char* buf, int size, int flag, void* passwd);

/* OpenSSL verify mode: bit 1 (peer) from verify_peer, bit 2 (fail if the peer
 * sends no certificate) from require_peer_certificate. The second bit means
 * nothing to OpenSSL without the first; it is set alone on purpose. */
VEK_API int ssl_ctx_set_verify(void* ctx, int require_peer_certificate, int verify_peer);
/* 1 if the private key matches the certificate, else 0 (also for NULL). */
VEK_API int ssl_ctx_check(void* ctx);
/* Text of the context's last OpenSSL error ("" if none); NULL for NULL. */
VEK_API const char* ssl_ctx_error(void* ctx);
VEK_API struct ssl_ctx_st* ssl_ctx_get_raw_object(void* ctx);

/* ---- Connections (handle is a connected socket) -------------------------- */

/* Morph the socket and run the client / server handshake: 0, or
 * ERR_INVALID_HANDLE, ERR_NO_MEMORY, ERR_SSL_NO_CONTEXT, ERR_SSL_CONNECT
 * (SSL_new failed, or the client handshake failed) and ERR_SSL_ACCEPT (the
 * server handshake failed). After a handshake failure ssl_error tells why. */
VEK_API int ssl_connect(void* handle, void* ctx);
VEK_API int ssl_accept(void* handle, void* ctx);

/* The peer's certificate with a new reference (free it with X509_free), or
 * NULL. */
VEK_API struct x509_st* ssl_get_peer_certificate(void* handle);
/* Name of the negotiated cipher; NULL without TLS state. */
VEK_API const char* ssl_get_cipher(void* handle);
/* 1 if certificate verification succeeded (or the peer sent none), else 0. */
VEK_API int ssl_verify_peer(void* handle);
/* Text of the socket's last TLS error; NULL without TLS state. */
VEK_API const char* ssl_error(void* handle);
VEK_API struct ssl_st* ssl_get_raw_object(void* handle);

/* ---- The socket operations installed by the morph ------------------------ */

/* Time-outs in milliseconds; 0 and -1 wait inside OpenSSL without limit,
 * below -1 is refused with ERR_SOCKET_FAILED. Results: 0, ERR_SOCKET_TIMEOUT,
 * ERR_SOCKET_FAILED, ERR_SOCKET_SEND_FAILED, ERR_SOCKET_CLOSED (the peer
 * closed or sent its close-notify) or ERR_SSL_IO. */

/* Sends all length bytes (time-out 10 s). */
VEK_API int _ssl_send(void* handle, const char* buffer, int length);
VEK_API int _ssl_send2(void* handle, const char* buffer, int length, int timeout);
/* Reads exactly length bytes; the time-out applies to the first of them. */
VEK_API int _ssl_recv(void* handle, char* buffer, int length, int timeout);
/* Reads what is there, at most *length bytes; *length receives the count. */
VEK_API int _ssl_recv2(void* handle, char* buffer, int* length, int timeout);
/* Ends TLS and releases the state; the descriptor stays open. */
VEK_API int _ssl_close(void* handle);
/* Installs a fresh TLS state and the operations above on the socket. */
VEK_API int _ssl_morph(void* handle);

VEK_END_DECLS

#endif
