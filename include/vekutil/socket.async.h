/* Asynchronous socket handler ("worker"): one thread that watches many
 * sockets and calls a callback when a listening socket has a client waiting,
 * a connected socket has data (or its peer closed), a socket reports an
 * error, or a socket has been idle too long.
 *
 * Servers register their listening socket for accepting and each accepted
 * client for receiving, and do their work inside the callbacks. The
 * callback's return value tells the worker what to do with the socket next
 * (SOCKET_ASYNC_KEEP, _PAUSE, _END, _DESTROY below).
 *
 * Callbacks of one worker run one at a time on its thread, with the
 * worker's recursive lock held: a callback may call the add, remove and
 * resume functions of its own worker, but must not block for long, since it
 * delays every other socket of that worker. Registration, removal and resume
 * may be called from any thread.
 *
 * A worker made with max_socket N serves at most N - 1 sockets. Descriptors
 * of any number work (there is no 1024 limit).
 *
 * Results: 0 on success; ERR_INVALID_PARAMETER (-7004) for a NULL worker,
 * socket or callback, ERR_ASYNC_BAD_MODE (-7251), ERR_ASYNC_FULL (-7252),
 * ERR_ASYNC_ALREADY_ADDED (-7253), ERR_ASYNC_NOT_ADDED (-7254), ERR_NO_MEMORY
 * (-7003), ERR_SOCKET_NOT_OPEN (-7213) for a socket without a descriptor,
 * ERR_SYSTEM (-7006) when the system refused to watch the descriptor.
 */
#ifndef VEKUTIL_SOCKET_ASYNC_H
#define VEKUTIL_SOCKET_ASYNC_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* status: 0 = ready (a client is waiting / data or end of stream can be
 * read), ERR_SOCKET_FAILED (-7201) = the socket reports an error condition,
 * ERR_SOCKET_TIMEOUT (-7205) = no data for longer than the socket's
 * time-out, ERR_ASYNC_WORKER_DELETED (-7255) = the worker is being deleted
 * and has already unregistered the socket.
 * socket: the ABSTRACT_SOCKET* (receive mode) or SERVER_SOCKET* (accept
 * mode) that was registered. custom: as given at registration. */
typedef int (*socket_async_callback)(int status, void* socket, void* custom);

/* Registration modes. */
#define SOCKET_ASYNC_MODE_RECV 1
#define SOCKET_ASYNC_MODE_ACCEPT 4

/* Callback return values. */
#define SOCKET_ASYNC_KEEP 0     /* keep watching */
#define SOCKET_ASYNC_PAUSE (-1) /* stop watching until *_resume; stays registered */
#define SOCKET_ASYNC_END (-2)   /* unregister; the socket is left to the caller */
#define SOCKET_ASYNC_DESTROY (-3) /* unregister, then socket_delete (receive) or socket_unlisten (accept) */
/* Any other value is logged as invalid and treated as SOCKET_ASYNC_PAUSE.
 * If the callback unregistered its own socket (a remove call), its return
 * value is ignored. In the ERR_ASYNC_WORKER_DELETED call only
 * SOCKET_ASYNC_DESTROY has an effect (the socket is destroyed); a callback
 * that releases the socket itself must return something else. */

/* The two process-wide workers behind the short entry points below. */
VEK_API extern void* g_socket_async_default_acceptor;
VEK_API extern void* g_socket_async_default_receiver;

/* Starts a worker thread ("Async Socket Handler"). name: copied (at most 64
 * characters). max_socket: at least 1; the worker serves max_socket - 1
 * sockets. thread_priority: priority step as for thread_create_ex.
 * timeout: ms the thread waits per pass (negative: without limit); it is
 * also added once to a new registration's first inactivity deadline. */
VEK_API int socket_async_worker_create(void** handle, const char* name, int max_socket, int thread_priority,
                                       int timeout);
/* Stops and joins the thread, then hands ERR_ASYNC_WORKER_DELETED to the
 * callback of every socket still registered (after unregistering it) and
 * frees the worker. Must not be called from one of its own callbacks. */
VEK_API void socket_async_worker_delete(void* handle);

/* Registers a listening socket (SERVER_SOCKET*) or a connected socket
 * (ABSTRACT_SOCKET*). timeout: inactivity limit in ms, 0 or less for none.
 * A socket can be registered with one worker at a time. */
VEK_API int socket_async_worker_add_accept(void* handle, void* server_socket, int timeout,
                                           socket_async_callback callback, void* custom);
VEK_API int socket_async_worker_add_recv(void* handle, void* client_socket, int timeout,
                                         socket_async_callback callback, void* custom);
/* Unregisters; the socket itself is untouched. ERR_ASYNC_BAD_MODE when the
 * socket is registered in the other mode. */
VEK_API int socket_async_worker_remove_accept(void* handle, void* socket);
VEK_API int socket_async_worker_remove_recv(void* handle, void* socket);
/* Watches a paused socket again (no effect on one being watched). */
VEK_API int socket_async_worker_resume_accept(void* handle, void* server_socket);
VEK_API int socket_async_worker_resume_recv(void* handle, void* client_socket);

/* The default acceptor ("Default Acceptor") and receiver ("Default
 * Receiver"), both made with the same arguments. A default worker that
 * already exists is kept. Returns the first failure. */
VEK_API int socket_async_default_init(int max_socket, int priority, int timeout);
/* Deletes both default workers; 0. */
VEK_API int socket_async_default_uninit(void);

/* The same calls on the default acceptor. */
VEK_API int socket_async_accept_begin(void* server_socket, int timeout, socket_async_callback callback, void* custom);
VEK_API int socket_async_accept_end(void* server_socket);
VEK_API int socket_async_accept_resume(void* server_socket);
/* The same calls on the default receiver. */
VEK_API int socket_async_recv_begin(void* client_socket, int timeout, socket_async_callback callback, void* custom);
VEK_API int socket_async_recv_end(void* client_socket);
VEK_API int socket_async_recv_resume(void* client_socket);

VEK_END_DECLS

#endif
