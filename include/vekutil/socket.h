/* The IPv4 stream socket: one record whose input and output go through a
 * table of replaceable operations. A plain socket uses the TCP operations
 * (tcp.h); the secure stream (stcp.h) and TLS replace the slots on an open
 * socket so that protocol code only ever calls socket_send / socket_recv.
 *
 * Every socket made by socket_create is kept in a process-wide registry and
 * in the instrumentation group socket_instrument_handle(). The first socket
 * (or listener) created in the process sets SIGPIPE to be ignored.
 *
 * Results: 0 or a count on success, a negative ERR_* code (errors.h) on
 * failure; the cause is kept in the record's err field (socket_error). */
#ifndef VEKUTIL_SOCKET_H
#define VEKUTIL_SOCKET_H

#include <vekutil/btree.h>
#include <vekutil/defs.h>
#include <vekutil/inet.h>

VEK_BEGIN_DECLS

/* The operation slots. Each receives the ABSTRACT_SOCKET itself. */
typedef int (*abstract_send)(void* socket, const char* data, int len);
typedef int (*abstract_send2)(void* socket, const char* data, int len, int timeout);
typedef int (*abstract_recv)(void* socket, char* data, int len, int timeout);
typedef int (*abstract_recv2)(void* socket, char* data, int* len, int timeout);
typedef int (*abstract_close)(void* socket);

/* Optional per-socket loggers: every buffer moved, every outcome. fn names
 * the stage ("connect()", "send()", "recv()", ...). */
typedef void (*socket_log_buffer)(void* socket, const char* owner, int socknum, const char* fn, const char* data,
                                  int data_len);
typedef void (*socket_log_result)(void* socket, const char* owner, int socknum, const char* fn, int ret, int oserr);

/* Values of the type field. */
#define SOCKET_TYPE_STREAM 1 /* a connected (or accepted) stream socket */
#define SOCKET_TYPE_SERVER 2 /* a listening socket */

/* Option bits of socket_connect_ex2 and socket_accept_ex. */
#define SOCKET_OPTION_NODELAY 1 /* disable Nagle's algorithm (connect only) */
#define SOCKET_OPTION_BUFFERS 2 /* send and receive buffers of 65535 bytes */

typedef struct _ABSTRACT_SOCKET {
  int s;                   /* the descriptor; 0 means not open */
  int type;                /* SOCKET_TYPE_STREAM */
  int err;                 /* last errno or library code of a failing call */
  const char* file;        /* creator's source position */
  int line;
  void* async_handle;      /* entry of the asynchronous handler serving it */
  char* peer;              /* "host:port" given to connect, or "a.b.c.d:port" of an accepted client */
  unsigned int peer_addr;  /* host byte order */
  unsigned short peer_port;
  abstract_send a_send;
  abstract_send2 a_send2;
  abstract_recv a_recv;
  abstract_recv2 a_recv2;
  abstract_close a_close;
  socket_log_buffer a_log_b;
  socket_log_result a_log_a;
  const char* owner;       /* label for the loggers, not copied */
  unsigned int bytes_in;
  unsigned int bytes_out;
  long long connect_time;  /* time_now() when connected or accepted */
  unsigned int current_send; /* calls inside a send slot right now */
  unsigned int current_recv; /* calls inside a receive slot right now */
  void* handle;            /* private state of the layer in the slots; NULL for plain TCP */
} ABSTRACT_SOCKET;

typedef struct _SERVER_SOCKET {
  int s;
  int type; /* SOCKET_TYPE_SERVER */
  int err;
  const char* file;
  int line;
  void* async_handle;
  char* laddr; /* the local "host:port" listened on */
} SERVER_SOCKET;

/* Registry of every ABSTRACT_SOCKET alive, hostname buffer and the
 * instrumentation group. */
VEK_API extern void* g_socket_btree;
VEK_API extern char g_socket_hostname[256];
VEK_API extern void* g_socket_instrument_handle;
VEK_API void* socket_instrument_handle(void);

/* Creation and teardown. The file (kept, not copied: pass a literal) and
 * line name the creator in diagnostics. */
VEK_API int _socket_create(void** handle, const char* file, int line);
VEK_API int socket_create(void** handle);
VEK_API int socket_delete(void* handle);
/* Lets the layer in the slots release its state, then closes the
 * descriptor; ERR_SOCKET_NOT_OPEN when there is none. */
VEK_API int socket_close(void* handle);
VEK_API int socket_shutdown(void* handle);

/* Connects to "host:port" within timeout milliseconds (-1: no limit of our
 * own; below -1: ERR_INVALID_PARAMETER). A port of 1 to 65535 is required.
 * An open socket is closed first. Every failure leaves the socket closed. socket_connect_ex uses SOCKET_OPTION_NODELAY,
 * socket_connect also a time-out of 5000 ms. */
VEK_API int socket_connect_ex2(void* handle, const char* addr, int timeout, int options);
VEK_API int socket_connect_ex(void* handle, const char* addr, int timeout);
VEK_API int socket_connect(void* handle, const char* addr);
/* socket_connect to the socket's own peer text. */
VEK_API int socket_reconnect(void* handle);

/* Proxy tunnelling: connects to the proxy at addr ("host:port") and opens a
 * tunnel to target ("host:port") within timeout milliseconds in all. user
 * (with pass) asks for Basic authorisation (HTTP) or username/password
 * authentication (SOCKS5); SOCKS4 and SOCKS4a send user as the user id.
 * SOCKET_PROXY_NONE (or a NULL proxy) connects to target directly. On
 * failure the socket is left closed: ERR_SOCKET_PROXY_REFUSED when the proxy
 * refuses the tunnel, ERR_SOCKET_PROXY_AUTH when it rejects the credentials,
 * ERR_SOCKET_PROXY_REPLY for a reply it cannot have meant, or the codes of
 * connecting, sending and receiving. */
#define SOCKET_PROXY_NONE 0
#define SOCKET_PROXY_HTTP 1    /* HTTP CONNECT */
#define SOCKET_PROXY_SOCKS4 2  /* the name is resolved here */
#define SOCKET_PROXY_SOCKS4A 3 /* the proxy resolves the name */
#define SOCKET_PROXY_SOCKS5 4  /* the proxy resolves the name */

typedef struct _SOCKET_PROXY_INFO {
  int type;   /* SOCKET_PROXY_* */
  char* addr; /* the proxy's "host:port" */
  char* user; /* NULL: no authentication */
  char* pass;
} SOCKET_PROXY_INFO;

VEK_API int socket_connect_thru_proxy(void* socket, const SOCKET_PROXY_INFO* proxy, const char* target, int timeout);

/* Listening. The SERVER_SOCKET is stored in *server_handle even on failure
 * and must then be released with socket_unlisten. */
VEK_API int _socket_listen(void** server_handle, const char* addr, const char* file, int line);
VEK_API int socket_listen(void** server_handle, const char* addr);
/* Waits up to timeout ms (-1: blocks) for a client; a new socket, or NULL
 * with the reason in the server's err (ERR_SOCKET_TIMEOUT, an errno, ...). */
VEK_API void* socket_accept_ex(void* server_handle, int timeout, int options);
VEK_API void* socket_accept(void* server_handle, int timeout);
VEK_API int socket_unlisten(void* server_handle);

/* Dispatchers: check the handle, the slot, the buffer and the descriptor,
 * keep the statistics and return the slot's result. socket_send* add the
 * requested length to bytes_out; socket_recv adds the requested length to
 * bytes_in whatever arrived, socket_recv2 the count received. */
VEK_API int socket_send(void* socket, const char* data, int len);
VEK_API int socket_send2(void* socket, const char* data, int len, int timeout);
VEK_API int socket_recv(void* socket, char* data, int len, int timeout);
VEK_API int socket_recv2(void* socket, char* data, int* len, int timeout);

/* Queries and settings. */
VEK_API int socket_isopen(const void* handle);
VEK_API int socket_descriptor(const void* handle);
VEK_API const char* socket_peer(const void* handle);
VEK_API unsigned int socket_peer_address(const void* handle);
/* 58528 (the low 16 bits of ERR_INVALID_HANDLE) for a NULL handle. */
VEK_API unsigned short socket_peer_port(const void* handle);
VEK_API int socket_error(const void* socket);
VEK_API int socket_get_statistics(const void* socket, long long* connect_time, unsigned int* bytes_in,
                                  unsigned int* bytes_out);
VEK_API int socket_set_log_callbacks(void* socket, socket_log_buffer lb, socket_log_result lr);
VEK_API int socket_set_owner(void* socket, const char* owner);
VEK_API const char* socket_get_owner(const void* socket);
/* New "a.b.c.d:port" text of the local end in *local_address. */
VEK_API int socket_local_address(void* handle, char** local_address);
/* SO_SNDBUF / SO_RCVBUF, each unless -1. */
VEK_API int socket_set_io_queues(void* handle, int send_queue, int recv_queue);
/* Bytes waiting to be read and bytes not yet sent. */
VEK_API int socket_check_queues(const void* handle, int* recvq, int* sendq);

/* select() over the caller's fd_set pointers with a time-out in ms (below 0:
 * no limit); the
 * ready count, ERR_SOCKET_TIMEOUT, or ERR_SOCKET_FAILED. A maxfd of
 * socket_get_fd_setsize() or more is refused with ERR_INVALID_PARAMETER:
 * such a descriptor does not fit in an fd_set. */
VEK_API int socket_select(int maxfd, void* rd_set, void* wr_set, void* ex_set, int timeout);
VEK_API int socket_get_fd_setsize(void);

/* Calls func for every registered socket, under the registry's lock. */
VEK_API void socket_foreach(btree_fefunc func, void* custom);
/* The host name (at most 255 characters), kept in g_socket_hostname; NULL
 * on failure. */
VEK_API const char* socket_get_hostname(void);

#define SOCKET_CREATE(handle_ptr) _socket_create((handle_ptr), __FILE__, __LINE__)
#define SOCKET_LISTEN(server_ptr, addr) _socket_listen((server_ptr), (addr), __FILE__, __LINE__)

VEK_END_DECLS

#endif
