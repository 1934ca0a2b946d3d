/* CRC-16 with the CCITT polynomial 0x1021, most significant bit first. */
#ifndef VEKUTIL_CRC16_H
#define VEKUTIL_CRC16_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* CRC over len bytes starting from seed (0xFFFF or 0 select the usual
 * variants), with no final inversion. len 0 or a null addr returns seed. */
VEK_API unsigned short hash_crc16_ccitt(const void* addr, unsigned short len, unsigned short seed);

VEK_END_DECLS

#endif
