/* Named, instrumented, always-recursive mutexes.
 *
 * A mutex is an opaque handle (void*). Each locking call comes twice: the
 * positional entry (_mutex_lock(handle, file, line)) records where the lock
 * was taken, the plain entry (mutex_lock(handle)) forwards the file text
 * "Backward" and line 0. Use the macros below to pass your own position:
 *
 *   MUTEX_CREATE(&h, "name", options)  _mutex_create_ex(&h, "name", options, __FILE__, __LINE__)
 *   MUTEX_LOCK(h)                      _mutex_lock(h, __FILE__, __LINE__)
 *   MUTEX_TRYLOCK(h)                   _mutex_trylock(h, __FILE__, __LINE__)
 *   MUTEX_UNLOCK(h)                    _mutex_unlock(h, __FILE__, __LINE__)
 *
 * Results: 0 on success, ERR_INVALID_HANDLE (-7008) for a NULL handle,
 * ERR_SYSTEM (-7006) when the POSIX call failed (its error number is kept and
 * read with mutex_error). mutex_trylock gives 1 when another thread holds it.
 */
#ifndef VEKUTIL_MUTEX_H
#define VEKUTIL_MUTEX_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Option bit: the mutex is not listed in the instrumentation registry. */
#define MUTEX_OPT_NO_INSTRUMENT 4

/* The name is copied (at most 64 characters); file must be a string literal,
 * it is kept, not copied. Fails only with -7008 (NULL handle pointer) or
 * ERR_NO_MEMORY (-7003, *handle set to NULL). */
VEK_API int _mutex_create_ex(void** handle, const char* name, int options, const char* file, int line);
VEK_API int mutex_create_ex(void** handle, const char* name, int options);
VEK_API int mutex_create(void** handle);

VEK_API int _mutex_lock(void* handle, const char* file, int line);
/* 0 when taken (also when the caller already holds it), 1 when busy. A
 * successful trylock records nothing: no position, thread, time or count. */
VEK_API int _mutex_trylock(void* handle, const char* file, int line);
VEK_API int _mutex_unlock(void* handle, const char* file, int line);
VEK_API int mutex_lock(void* handle);
VEK_API int mutex_trylock(void* handle);
VEK_API int mutex_unlock(void* handle);

/* Frees the mutex; a mutex still held is released once and destroyed. */
VEK_API int mutex_delete(void* handle);
/* The last POSIX error number of the mutex, 0 if none. */
VEK_API int mutex_error(void* handle);

/* The registry group listing every instrumented mutex (made on first use;
 * NULL while the registry is disabled). */
VEK_API extern void* g_mutex_instrument_handle;
VEK_API void* mutex_instrument_handle(void);

#define MUTEX_CREATE(handle_ptr, name, options) _mutex_create_ex((handle_ptr), (name), (options), __FILE__, __LINE__)
#define MUTEX_LOCK(handle) _mutex_lock((handle), __FILE__, __LINE__)
#define MUTEX_TRYLOCK(handle) _mutex_trylock((handle), __FILE__, __LINE__)
#define MUTEX_UNLOCK(handle) _mutex_unlock((handle), __FILE__, __LINE__)

VEK_END_DECLS

#endif
