/* Small string helpers used across the library. Strings they return are
 * allocated through the accounted allocator; release them with _vekFree. */
#ifndef VEKUTIL_STRUTIL_H
#define VEKUTIL_STRUTIL_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Formats into a per-thread buffer of VEK_FORMAT_BUFFER_SIZE bytes (longer
 * output is cut). The text stays valid until the same thread calls format
 * again; copy it if it must live longer. Never returns NULL. */
#define VEK_FORMAT_BUFFER_SIZE 4096
VEK_API const char* format(const char* fmt, ...) VEK_PRINTF(1, 2);

/* Formats into the caller's buffer of len bytes (always terminated when len
 * is at least 1) and returns buffer; NULL if buffer is NULL or len below 1. */
VEK_API char* format_r(char* buffer, int len, const char* fmt, ...) VEK_PRINTF(3, 4);

/* A new copy of the first len bytes of str, or of all of it when len is -1
 * (or when len exceeds its length). NULL for a NULL str or no memory. */
VEK_API char* clone_string(const char* str, int len);

/* Replaces every byte find in str by replace, in place. Returns the number of
 * bytes replaced, or ERR_INVALID_PARAMETER for a NULL str. */
VEK_API int replace_string(char* str, char find, char replace);

/* 1 if str begins (ends) with the given text, 0 otherwise or for NULLs. */
VEK_API int str_starts_with(const char* str, const char* prefix);
VEK_API int str_ends_with(const char* str, const char* suffix);

VEK_END_DECLS

#endif
