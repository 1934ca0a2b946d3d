/* Random bytes, integers and letters from the OpenSSL generator. */
#ifndef VEKUTIL_RANDOM_H
#define VEKUTIL_RANDOM_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Seeds the generator once per process with 1024 bytes from /dev/urandom
 * (or, only if that fails, /dev/random). The other calls run it on first use. */
VEK_API void random_init(void);

/* Fills size bytes of buffer with random bytes; returns buffer. */
VEK_API void* randomize(void* buffer, unsigned int size);

/* 4 and 8 random bytes. */
VEK_API int random_int(void);
VEK_API long long random_int64(void);

/* Writes size random upper-case letters 'A'-'Z' (no terminator); returns buffer. */
VEK_API char* random_string(char* buffer, unsigned int size);

VEK_END_DECLS

#endif
