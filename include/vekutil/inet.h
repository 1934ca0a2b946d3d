/* IPv4 address helpers: "host[:port]" texts to socket addresses and back,
 * name lookups and interface addresses. Texts these calls return are
 * allocated through the accounted allocator; release them with _vekFree. */
#ifndef VEKUTIL_INET_H
#define VEKUTIL_INET_H

#include <netinet/in.h>

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Parses "host[:port]" into sin (zeroed first, family IPv4, port in network
 * order, 0 without a port). The ':' is replaced by a terminator during the
 * lookup and put back afterwards, so addr must be writable even though it
 * comes back unchanged. ERR_INVALID_PARAMETER for NULL arguments,
 * ERR_SOCKET_HOST_NOT_FOUND when the host does not resolve. */
VEK_API int make_addr(const char* addr, struct sockaddr_in* sin);

/* First IPv4 address of host (name or dotted quad); ERR_SOCKET_HOST_NOT_FOUND
 * when there is none or addr is NULL. */
VEK_API int host2addr(const char* host, struct in_addr* addr);
/* The same address as a host-order integer. */
VEK_API int host2int(const char* host, unsigned int* network_number);
VEK_API int inet_host2int(const char* host, unsigned int* network_number);
/* Resolves "host[:port]" and returns a new dotted-quad text in *ip_address. */
VEK_API int inet_host2ip(const char* host, char** ip_address);

/* New "a.b.c.d:port" text of sin; NULL for NULL or no memory. */
VEK_API char* make_string_from_addr(struct sockaddr_in* sin);

/* Address of the network interface iface (at most 15 characters) as a new
 * dotted-quad text; ERR_SYSTEM with *ip_address NULL when it has none,
 * ERR_INVALID_PARAMETER for NULL arguments. */
VEK_API int inet_adapter_get_ip(const char* iface, char** ip_address);

VEK_END_DECLS

#endif
