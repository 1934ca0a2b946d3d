/* Scheduled events: interruptible sleeps.
 *
 * A thread sleeps for a time (schevent_waitfor), until an absolute time
 * (schevent_waituntil, milliseconds since the epoch) or until interrupted
 * (schevent_wait); another thread cuts the sleep short with
 * schevent_interrupt. An interrupt given while nobody sleeps is kept and
 * consumed by the next sleep, which then returns at once. Of several
 * sleepers woken by one interrupt only the first sees it.
 *
 * Results: 0 on success (timed sleeps: the full time elapsed),
 * ERR_INTERRUPTED (-7121) when a timed sleep was interrupted,
 * ERR_INVALID_PARAMETER (-7004) for a time-out below -1, ERR_INVALID_HANDLE
 * (-7008) for a NULL handle, ERR_SYSTEM (-7006) when a POSIX call failed,
 * ERR_NO_MEMORY (-7003).
 */
#ifndef VEKUTIL_SCHEVENT_H
#define VEKUTIL_SCHEVENT_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

VEK_API int schevent_create(void** handle);
/* Sleeps until interrupted; returns 0 when interrupted. */
VEK_API int schevent_wait(void* handle);
/* Sleeps timeout milliseconds (-1 means a deadline already past). */
VEK_API int schevent_waitfor(void* handle, int timeout);
/* Sleeps until the absolute time d in milliseconds since the epoch. */
VEK_API int schevent_waituntil(void* handle, long long d);
VEK_API int schevent_interrupt(void* handle);
VEK_API int schevent_delete(void* handle);
VEK_API int schevent_error(void* handle);

VEK_END_DECLS

#endif
