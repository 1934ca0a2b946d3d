/* Hex dumps: rows of sixteen bytes with their offset, the bytes in hex and
 * the printable characters. */
#ifndef VEKUTIL_HEXDUMP_H
#define VEKUTIL_HEXDUMP_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Prints the rows of len bytes at data to standard output; nothing for a
 * NULL data or len below 1. */
VEK_API void hexdump_console(const void* data, int len);

/* A new string (release with _vekFree): the line
 * "HEXDUMP AT [0x<address>] (<len> bytes)" followed by the rows, without a
 * final line feed. NULL for NULL data or when memory runs out. */
VEK_API char* hexdump(const void* data, int len);

VEK_END_DECLS

#endif
