/* Events: manual-reset gates.
 *
 * An event is an opaque handle (void*) and starts closed. While it is closed
 * event_wait blocks; event_unlock opens it for every waiter and for every
 * later wait until event_lock closes it again. event_unlock1 wakes a single
 * waiter but leaves the gate open just the same.
 *
 * Timed waits count from the start of the current second, not from the
 * current instant, so they may end up to one second early.
 *
 * Results: 0 on success, ERR_TIMEOUT (-7002) when a timed wait expired,
 * ERR_INVALID_HANDLE (-7008) for a NULL handle, ERR_SYSTEM (-7006) when a
 * POSIX call failed, ERR_NO_MEMORY (-7003). Use the macro to record your
 * own position as the last waiter:
 *
 *   EVENT_WAIT(h, timeout)  _event_wait(h, timeout, __FILE__, __LINE__)
 */
#ifndef VEKUTIL_EVENT_H
#define VEKUTIL_EVENT_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* The name is copied (at most 64 characters); options only appear in the
 * failure messages. If a primitive cannot be initialised the call gives
 * -7006 and the record stays in *handle: read event_error, then delete it. */
VEK_API int event_create_ex(void** handle, const char* name, int options);
VEK_API int event_create(void** handle);

/* Closes the gate. */
VEK_API int event_lock(void* handle);
/* Opens the gate and wakes every waiter. */
VEK_API int event_unlock(void* handle);
/* Opens the gate and wakes one waiter. */
VEK_API int event_unlock1(void* handle);

/* Waits until the gate is open; timeout in milliseconds, -1 for ever. */
VEK_API int _event_wait(void* handle, int timeout, const char* file, int line);
VEK_API int event_wait(void* handle, int timeout);

VEK_API int event_delete(void* handle);
/* The last POSIX error, or ERR_TIMEOUT after a timed-out wait. */
VEK_API int event_error(void* handle);

/* The registry group listing every event (made on first use; NULL while the
 * registry is disabled). */
VEK_API extern void* g_event_instrument_handle;
VEK_API void* event_instrument_handle(void);

#define EVENT_WAIT(handle, timeout) _event_wait((handle), (timeout), __FILE__, __LINE__)

VEK_END_DECLS

#endif
