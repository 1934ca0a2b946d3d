/* CRC-32 (the reflected IEEE 802.3 polynomial 0xEDB88320) over memory and files. */
#ifndef VEKUTIL_CRC32_H
#define VEKUTIL_CRC32_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* One-shot CRC-32 of datalen bytes; 0 for empty or null input. */
VEK_API unsigned int hash_crc32(const char* data, unsigned int datalen);

/* Incremental form: init (0xFFFFFFFF), any number of calc calls, end (inverts).
 * Null pointers are ignored. */
VEK_API void hash_crc32_init(unsigned int* crc);
VEK_API void hash_crc32_calc(unsigned int* crc, const char* data, unsigned int datalen);
VEK_API void hash_crc32_end(unsigned int* crc);

/* CRC-32 of a whole file, read in blocks of 2048 bytes. Returns 0, or a plain
 * -1 when the file cannot be opened or read (or an argument is null). */
VEK_API int hash_file_crc32(const char* filename, unsigned int* crc32);

VEK_END_DECLS

#endif
