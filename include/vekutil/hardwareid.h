/* Hardware identifiers: the hardware addresses of the IPv4 network interfaces. */
#ifndef VEKUTIL_HARDWAREID_H
#define VEKUTIL_HARDWAREID_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* One network interface; the field order is part of the interface. */
typedef struct _HWID_ENTRY {
  char type[25];   /* "MAC Address" */
  int type_nls;    /* 37401, the message number of that text */
  char hwid[24];   /* twelve upper-case hexadecimal digits */
  char ip[24];     /* the IPv4 address in dotted form */
} HWID_ENTRY;

#define HWID_TYPE_MAC "MAC Address"
#define HWID_TYPE_MAC_NLS 37401

/* Number of configured IPv4 interfaces, or -1 on failure. */
VEK_API int hardwareid_count(void);

/* *count is the capacity of hwids on entry and the number of entries filled
 * on return. Interfaces without a hardware address (such as loopback) are
 * left out. Returns 0, or -1 on failure (null argument, socket, query or
 * allocation). */
VEK_API int hardwareid_list(HWID_ENTRY* hwids, int* count);

VEK_END_DECLS

#endif
