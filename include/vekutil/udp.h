/* IPv4 UDP sockets for senders and receivers of single datagrams of at most
 * 65535 bytes. Addresses are "host:port" texts; sender texts come back as
 * new "a.b.c.d:port" strings the caller releases with _vekFree.
 *
 * Results: 0 or a negative ERR_* code; a NULL handle gives
 * ERR_INVALID_HANDLE. The receive calls return the byte count, or the
 * system's -1 when recvfrom fails (test for a negative count). */
#ifndef VEKUTIL_UDP_H
#define VEKUTIL_UDP_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

#define UDP_MAX_DATAGRAM 65535

VEK_API int udp_create(void** handle);
/* A socket for sending. */
VEK_API int udp_open(void* handle);
/* A socket receiving on the local "host:port" addr. */
VEK_API int udp_bind(void* handle, const char* addr);
VEK_API int udp_enable_broadcast(void* handle);
/* length -1 sends strlen(data) + 1 (with the terminator). */
VEK_API int udp_send(void* handle, const char* data, int length, const char* addr);
/* One datagram of at most *length bytes; blocks. */
VEK_API int udp_recv(void* handle, char* data, int* length, char** addr);
/* With timeout > 0 ms waits for a datagram first: ERR_SOCKET_TIMEOUT. */
VEK_API int udp_recv2(void* handle, char* data, int* length, char** addr, int timeout);
/* As udp_recv, leaving the datagram queued. */
VEK_API int udp_peek(void* handle, char* data, int* length, char** addr);
VEK_API int udp_close(void* handle);
VEK_API int udp_delete(void* handle);
VEK_API int udp_isopen(void* handle);
VEK_API int udp_descriptor(void* handle);
VEK_API int udp_error(void* handle);

VEK_END_DECLS

#endif
