/* The TCP operations every socket gets at creation, connect and accept.
 * Call them through the socket dispatchers (socket_send, socket_recv, ...),
 * which check the handle and keep the statistics.
 *
 * Time-outs are milliseconds: a positive value waits for readiness before
 * each system call (the time left carries over within one call); 0 and -1
 * block. Sends never raise SIGPIPE and move at most 65535 bytes per system
 * call. Each outcome goes to the socket's result logger, each buffer moved
 * to its buffer logger, with the fn texts "send()", "send(select)" and
 * "recv()". */
#ifndef VEKUTIL_TCP_H
#define VEKUTIL_TCP_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* tcp_send2 with a time-out of 10000 ms. */
VEK_API int tcp_send(void* handle, const char* buffer, int length);
/* Sends all length bytes; length -1 sends strlen(buffer) + 1 (with the
 * terminator). ERR_SOCKET_TIMEOUT, ERR_SOCKET_SEND, ERR_SOCKET_SEND_FAILED,
 * ERR_SOCKET_FAILED for a time-out below -1. */
VEK_API int tcp_send2(void* handle, const char* buffer, int length, int timeout);
/* Receives exactly length bytes. ERR_SOCKET_CLOSED when the peer closes
 * first, ERR_SOCKET_TIMEOUT, ERR_SOCKET_RECV, ERR_SOCKET_BAD_TIMEOUT. */
VEK_API int tcp_recv(void* handle, char* buffer, int length, int timeout);
/* Receives what is there, at most *length bytes, in one call; *length is
 * set to the count. */
VEK_API int tcp_recv2(void* handle, char* buffer, int* length, int timeout);
/* Nothing to release; socket_close closes the descriptor. */
VEK_API int tcp_close(void* handle);

VEK_END_DECLS

#endif
