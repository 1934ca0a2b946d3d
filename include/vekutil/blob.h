/* Blob: a growable byte buffer that can also hold an array of fixed-size
 * records. A blob is handed out as void*; it is a _BLOB record.
 *
 * The byte operations return ERR_INVALID_HANDLE (-7008) for a null handle;
 * create, clone, file reading and the array operations return
 * ERR_INVALID_PARAMETER (-7004). Growth failures give ERR_NO_MEMORY (-7003)
 * and leave the blob unchanged. Nothing is logged. A blob belongs to one
 * thread at a time.
 */
#ifndef VEKUTIL_BLOB_H
#define VEKUTIL_BLOB_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* The field order is part of the interface. */
typedef struct _BLOB {
  char* buffer;     /* owned; bytes beyond len are kept zero */
  int size;         /* bytes allocated */
  int len;          /* bytes in use */
  int unused;       /* size - len */
  int array_length; /* record size when used as an array; 0: not an array */
  int array_cur;    /* records pushed */
} _BLOB;

/* A blob with a zeroed buffer of initial_length bytes (1024 below 1). */
VEK_API int blob_create(void** handle, int initial_length);
/* A new blob of size len + 1 holding a copy of the bytes in use (and the
 * record size and count of an array). */
VEK_API int blob_clone(void* handle, void** new_blob);
/* Frees buffer and record. */
VEK_API void blob_delete(void* handle);
/* Frees the record only: the buffer, taken beforehand with blob_get_buffer,
 * now belongs to the caller, who frees it with _vekFree. */
VEK_API void blob_delete_object(void* handle);

VEK_API void* blob_get_buffer(void* handle);
VEK_API int blob_get_length(void* handle);

/* Appends data_len bytes (zero bytes when data is null); a negative data_len
 * gives ERR_INVALID_PARAMETER. */
VEK_API int blob_append(void* handle, const void* data, int data_len);
/* Appends the characters of str without its terminator. */
VEK_API int blob_append_string(void* handle, const char* str);
/* printf-style append; the terminator lies beyond len and is not counted. */
VEK_API int blob_format_append(void* handle, const char* msg, ...) VEK_PRINTF(2, 3);
/* Zeroes the buffer and empties the blob; the record count stays. */
VEK_API int blob_clear(void* handle);
/* length < 0 drops -length bytes from the end (emptying the blob when that
 * is all of it); 0 changes nothing; length > 0 only ever extends len up to
 * length (at most size), without growing or zeroing. Returns the new len. */
VEK_API int blob_truncate(void* handle, int length);
/* Appends a whole file. ERR_FILE_OPEN (-7082) when it cannot be opened; a
 * failed append (ERR_NO_MEMORY) stops the read and is returned. */
VEK_API int blob_file2blob(void* blob, const char* filename);

/* Array use: record_size bytes per record (records are placed by count, so
 * the blob must hold only records). Array calls on a blob without a record
 * size give ERR_BLOB_NOT_ARRAY (-7135); an index outside 0..count-1 gives
 * ERR_INVALID_PARAMETER. */
VEK_API int blob_array_init(void* handle, int record_size);
/* Appends one record; returns the new record count. */
VEK_API int blob_array_push(void* handle, void* data);
VEK_API int blob_array_count(void* handle);
/* *ptr = address of record index inside the buffer, valid until the blob grows. */
VEK_API int blob_array_get_buffer(void* handle, int index, void** ptr);
VEK_API int blob_array_set(void* handle, int index, void* buffer);
VEK_API int blob_array_get(void* handle, int index, void* buffer);

VEK_END_DECLS

#endif
