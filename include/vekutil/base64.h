/* Base64 (alphabet A-Z a-z 0-9 + /) with a settable padding character. */
#ifndef VEKUTIL_BASE64_H
#define VEKUTIL_BASE64_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Sets the process-wide padding character (default '='); '\0' disables
 * padding. Meant to be called before threads use the codec. */
VEK_API void base64_set_pad(char pad);

/* Encoded size for asciiSize input bytes, without the terminator: always 1 to
 * 4 more than asciiSize*4/3, so it is never too small. */
VEK_API int base64_sizeof(int asciiSize);

/* Encodes inlen bytes into a newly allocated, terminated text in *out (free
 * it with _vekFree). Returns 0, or a plain -1 when an argument is null, inlen
 * is negative or allocation fails. */
VEK_API int base64_encode(const unsigned char* in, int inlen, char** out);

/* Decodes a terminated text into a newly allocated buffer in *out (with one
 * zero byte beyond *outlen) and its length in *outlen. Groups of four
 * characters; the last group may be short (two or three characters) or
 * completed with padding, and padding ends the text. Returns 0, or a plain -1
 * (with *out null) on a character outside the alphabet, a malformed group,
 * text after the padding, a null argument or an allocation failure. */
VEK_API int base64_decode(const char* in, unsigned char** out, int* outlen);

VEK_END_DECLS

#endif
