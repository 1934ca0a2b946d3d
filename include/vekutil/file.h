/* Files: a buffered byte reader, name checks, path helpers and the basic
 * delete / copy / move / chmod operations, plus numbered file rolling.
 * Sizes and offsets are 64-bit throughout, so files of 2 GiB and more work. */
#ifndef VEKUTIL_FILE_H
#define VEKUTIL_FILE_H

#include <vekutil/defs.h>
#include <vekutil/errors.h>

VEK_BEGIN_DECLS

/* ---- File stream: reads a file byte by byte through a 4096-byte buffer. */

/* Opens filename for binary reading. ERR_INVALID_PARAMETER for a null
 * argument, ERR_FILE_NOT_FOUND when it cannot be opened, ERR_NO_MEMORY. */
VEK_API int filestream_open(void** handle, const char* filename);
/* Stores the next byte in *ch and returns 0; returns -1 (not a library code)
 * at the end of the file or on a read error, and on every call after that. */
VEK_API int filestream_read(void* handle, char* ch);
/* Closes the file and frees the stream. */
VEK_API int filestream_close(void* handle);

/* ---- Names and paths. */

/* Turns every '\' into '/' in place; returns path. */
VEK_API char* file_path_normalize(char* path);
/* 0 for an acceptable name, ERR_FILE_INVALID_NAME when it holds one of
 * ":?*<>|", ERR_FILE_TRAVERSAL when it holds ".." and allow_transversal is 0,
 * ERR_INVALID_PARAMETER for a null name. Slashes are allowed. */
VEK_API int file_is_valid_name(const char* name, int allow_transversal);
/* A new absolute, lexically cleaned-up form of path, relative paths being
 * taken from the current directory (free it with _vekFree). No symbolic link
 * is resolved. NULL for a null path or no memory. Quirks kept on purpose:
 * "/a/.." gives "" and "/dir/.name" gives "/dirname". */
VEK_API char* file_absolute_path(const char* path);

/* ---- Operations: 0 or a result code. */

/* Removes a file or an empty directory. ERR_FILE_NOT_FOUND,
 * ERR_FILE_ACCESS_DENIED or ERR_SYSTEM. */
VEK_API int file_delete(const char* src);
/* Copies the bytes of src into dst (created or truncated); permissions and
 * times are not copied. ERR_FILE_NOT_FOUND when src cannot be opened,
 * ERR_FILE_CREATE when dst cannot be created or is src itself, ERR_SYSTEM
 * on a read or write error (the partial dst stays). */
VEK_API int file_copy(const char* src, const char* dst);
/* Renames src to dst and sets dst's access and modification times to now.
 * ERR_FILE_ACCESS_DENIED, ERR_FILE_EXISTS, ERR_FILE_NOT_FOUND or ERR_SYSTEM. */
VEK_API int file_move(const char* src, const char* dst);
/* Keeps up to max numbered copies: deletes "name.max", moves "name.(i-1)" to
 * "name.i" from max down to 2, then "name" to "name.1". max 0 does nothing;
 * a negative max only deletes "name.max". When a numbered name would be
 * longer than 146 bytes the roll leaves every file alone. */
VEK_API void file_roll(const char* filename, int max);

/* Flags for file_chmod, each granted to owner, group and others alike. */
#define FILE_MODE_READ 1
#define FILE_MODE_WRITE 2
#define FILE_MODE_EXECUTE 4
/* Sets the permission bits from FILE_MODE_* flags (7 gives 0777, 3 gives
 * 0666, 0 gives 0000). Returns chmod's own result: 0, or -1 with errno. */
VEK_API int file_chmod(const char* src, int mode);

VEK_END_DECLS

#endif
