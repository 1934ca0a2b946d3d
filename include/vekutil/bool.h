/* Bit fields over caller memory, and booleans from text.
 *
 * Bits are numbered from the least significant bit of the first word: word
 * index = bit / width, bit in word = bit % width. The plain bool_getbit,
 * bool_setbit, bool_getbits and bool_setbits work byte-wise. Null sources read
 * as 0 and are not written.
 */
#ifndef VEKUTIL_BOOL_H
#define VEKUTIL_BOOL_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* 1 if the bit is set, else 0. */
VEK_API int bool_getbit(const void* source, unsigned int bit);
VEK_API int bool_getbit_from_char(const unsigned char* source, unsigned int bit);
VEK_API int bool_getbit_from_short(const unsigned short* source, unsigned int bit);
VEK_API int bool_getbit_from_int(const unsigned int* source, unsigned int bit);
VEK_API int bool_getbit_from_longlong(const unsigned long long* source, unsigned int bit);

/* Non-zero value sets the bit, zero clears it. */
VEK_API void bool_setbit(void* source, unsigned int bit, int value);
VEK_API void bool_setbit_from_char(unsigned char* source, unsigned int bit, int value);
VEK_API void bool_setbit_from_short(unsigned short* source, unsigned int bit, int value);
VEK_API void bool_setbit_from_int(unsigned int* source, unsigned int bit, int value);
VEK_API void bool_setbit_from_longlong(unsigned long long* source, unsigned int bit, int value);

/* Bit i of the result is bit (bit + i) of the source, for i < length; at most
 * 32 bits are gathered, a length below 1 gives 0. */
VEK_API int bool_getbits(const void* source, unsigned int bit, int length);
/* Writes bits 0 .. length-1 of value to bits bit ... of the source (at most
 * 32); returns 0. */
VEK_API int bool_setbits(void* source, unsigned int bit, int length, int value);

/* Boolean from text: T/Y/t/y... 1, F/N/f/n... 0; a leading digit is true
 * except a lone leading "0" ("00" and "07" are true); "-<digit>" is true,
 * anything else (NULL, "", "+5") false. */
VEK_API int bool_get(const char* str);

VEK_END_DECLS

#endif
