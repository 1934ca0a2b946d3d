/* Clock helpers: wall-clock time in milliseconds, local-time text and
 * monotonic stopwatches. */
#ifndef VEKUTIL_TIMEUTIL_H
#define VEKUTIL_TIMEUTIL_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Milliseconds (seconds) since the epoch, from the wall clock. */
VEK_API long long time_now(void);
VEK_API long long time_now_in_sec(void);

/* Formats the local time of time_ms (milliseconds since the epoch) with the
 * strftime format fmt into buffer of size bytes; returns buffer, or NULL if
 * an argument is NULL or size is below 1. */
VEK_API char* time_sprintf(char* buffer, int size, const char* fmt, long long time_ms);

/* A stopwatch on the monotonic clock. */
typedef struct _VEK_MSTIMER {
  long long start_ms;
} VEK_MSTIMER;

VEK_API void mstimer_start(VEK_MSTIMER* timer);
/* Milliseconds since the last start; 0 for a NULL timer. */
VEK_API long long mstimer_elapsed(const VEK_MSTIMER* timer);
/* Returns the elapsed milliseconds and starts the timer again. */
VEK_API long long mstimer_restart(VEK_MSTIMER* timer);

VEK_END_DECLS

#endif
