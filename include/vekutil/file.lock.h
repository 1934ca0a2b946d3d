/* Lock files: a lock is held by whoever created the file, so it works
 * between processes without advisory record locks. */
#ifndef VEKUTIL_FILE_LOCK_H
#define VEKUTIL_FILE_LOCK_H

#include <vekutil/defs.h>
#include <vekutil/errors.h>

VEK_BEGIN_DECLS

/* Creates filename exclusively (permission bits 0700) and stores its
 * descriptor in *id. When the file exists already: *id = 0 and
 * ERR_FILE_ACCESS_DENIED; any other failure: *id = 0 and ERR_SYSTEM.
 * ERR_INVALID_PARAMETER for a null argument. The file stays empty. */
VEK_API int file_lock(const char* filename, int* id);
/* Closes the descriptor from file_lock and deletes filename. ERR_SYSTEM when
 * the descriptor cannot be closed; the file is then left in place. */
VEK_API int file_unlock(const char* filename, int fd);

VEK_END_DECLS

#endif
