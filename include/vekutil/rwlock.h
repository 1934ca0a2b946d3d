/* Named, instrumented read-write locks.
 *
 * A read-write lock is an opaque handle (void*). The positional lock entries
 * record the caller's source position; the plain ones forward "Backward" and
 * line 0. Use the macros to pass your own position:
 *
 *   RWLOCK_READLOCK(h)   _rwlock_readlock(h, __FILE__, __LINE__)
 *   RWLOCK_WRITELOCK(h)  _rwlock_writelock(h, __FILE__, __LINE__)
 *
 * Results: 0 on success, ERR_INVALID_HANDLE (-7008) for a NULL handle,
 * ERR_SYSTEM (-7006) when the POSIX call failed (error kept for
 * rwlock_error), ERR_NO_MEMORY (-7003).
 */
#ifndef VEKUTIL_RWLOCK_H
#define VEKUTIL_RWLOCK_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* The name is copied (at most 64 characters); opt is accepted and ignored.
 * If the primitive cannot be initialised the call gives -7006 but the record
 * stays in *handle: read rwlock_error, then rwlock_delete it. */
VEK_API int rwlock_create_ex(void** handle, int opt, const char* name);
VEK_API int rwlock_create(void** handle);

VEK_API int _rwlock_readlock(void* handle, const char* file, int line);
VEK_API int _rwlock_writelock(void* handle, const char* file, int line);
VEK_API int rwlock_readlock(void* handle);
VEK_API int rwlock_writelock(void* handle);
/* Releases a read or a write lock. */
VEK_API int rwlock_unlock(void* handle);

VEK_API int rwlock_delete(void* handle);
VEK_API int rwlock_error(void* handle);

/* The registry group listing every read-write lock (made on first use;
 * NULL while the registry is disabled). */
VEK_API extern void* g_rwlock_instrument_handle;
VEK_API void* rwlock_instrument_handle(void);

#define RWLOCK_READLOCK(handle) _rwlock_readlock((handle), __FILE__, __LINE__)
#define RWLOCK_WRITELOCK(handle) _rwlock_writelock((handle), __FILE__, __LINE__)

VEK_END_DECLS

#endif
