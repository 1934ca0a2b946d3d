/* Counting semaphores with untimed and timed waits.
 *
 * A semaphore is an opaque handle (void*). Results: 0 on success
 * (semaphore_count: the count), ERR_TIMEOUT (-7002) when a timed wait
 * expired, ERR_INVALID_HANDLE (-7008) for a NULL handle, ERR_SYSTEM (-7006)
 * when a POSIX call failed (errno kept for semaphore_error), ERR_NO_MEMORY
 * (-7003).
 */
#ifndef VEKUTIL_SEMAPHORE_H
#define VEKUTIL_SEMAPHORE_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* A new semaphore with count 0 (semaphore_create) or initial_value. If the
 * primitive cannot be initialised the call gives -7006 and the record stays
 * in *handle: read semaphore_error, then delete it. */
VEK_API int semaphore_create(void** handle);
VEK_API int semaphore_create_ex(void** handle, int initial_value);
/* Waits until the count is above 0 and takes one; resumes after signals. */
VEK_API int semaphore_wait(void* handle);
/* The same, giving up after ms milliseconds with ERR_TIMEOUT. */
VEK_API int semaphore_timedwait(void* handle, int ms);
/* Adds one to the count. */
VEK_API int semaphore_signal(void* handle);
/* The current count (0 or more). */
VEK_API int semaphore_count(void* handle);
VEK_API int semaphore_delete(void* handle);
VEK_API int semaphore_error(void* handle);

VEK_END_DECLS

#endif
