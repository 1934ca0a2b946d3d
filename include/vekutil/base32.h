/* Base32 text in groups of eight characters separated by dashes
 * ("ABCDEFGH-IJ======"), alphabet A-Z 2-7, with a settable padding character. */
#ifndef VEKUTIL_BASE32_H
#define VEKUTIL_BASE32_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Sets the process-wide padding character (default '='); '\0' disables
 * padding. Meant to be called before threads use the codec. */
VEK_API void base32_set_pad(char pad);

/* Encodes inlen bytes into a newly allocated, terminated text in *out (free
 * it with _vekFree). ERR_INVALID_PARAMETER for null in or out or an inlen
 * below 1, ERR_NO_MEMORY when allocation fails, else 0. */
VEK_API int base32_encode(const unsigned char* in, int inlen, char** out);

/* Decodes text up to its end or the first padding character. Letters of
 * either case and the digits 2-7 carry five bits each; every other character
 * (dashes included) is skipped. *out receives a newly allocated buffer (one
 * zero byte beyond *outlen at least), *outlen its length. ERR_INVALID_PARAMETER
 * for a null argument, ERR_NO_MEMORY when allocation fails, else 0. */
VEK_API int base32_decode(const char* in, unsigned char** out, int* outlen);

VEK_END_DECLS

#endif
