/* Thread pool: detached workers fed from one queue, grown on demand between
 * a minimum and a maximum, plus a scheduler thread that releases timed and
 * repeating work when it falls due. A pool made with thread_pool_init2 runs
 * nothing itself and forwards every call to the host's own executor. */
#ifndef VEKUTIL_POOL_H
#define VEKUTIL_POOL_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* Work: id is the number of the worker that runs it. */
typedef void (*thread_pool_callback)(int id, void* a, void* b, void* c);

/* Forwarding targets of a pool made with thread_pool_init2. */
typedef void (*thread_pool_put_work_callback)(const char* who, thread_pool_callback func, void* a, void* b, void* c);
typedef void (*thread_pool_put_scheduled_work_callback)(const char* who, void** handle, int interval, int repeat,
                                                        thread_pool_callback func, void* a, void* b, void* c);
typedef void (*thread_pool_end_scheduled_work_callback)(void* handle);

/* Starts minthreads workers at once and lets the pool grow to maxthreads;
 * never more than maxthreads workers are alive. A worker that keeps finding
 * nothing more to do while the pool is above minthreads ends. Workers get a
 * stack of stack_size bytes when that is above 32768, else 256 KiB. *pool
 * stays unset if the pool cannot be built. */
VEK_API void thread_pool_init(void** pool, int minthreads, int maxthreads, int stack_size);
VEK_API void thread_pool_init2(void** pool, thread_pool_put_work_callback put_callback,
                               thread_pool_put_scheduled_work_callback put_sch_callback,
                               thread_pool_end_scheduled_work_callback end_sch_callback);

/* One-shot work. Returns the queue depth after the put (>= 1), or a
 * negative code. who names the caller for a forwarding pool. */
VEK_API int thread_pool_put_work(void* pool, const char* who, thread_pool_callback func, void* a, void* b, void* c);
/* Runs func interval ms from now and, if repeat is non-zero, every interval
 * ms after that. *handle (if given) receives the handle for cancelling.
 *
 * Handle lifetime: the handle is a number, not the address of anything, and
 * stays safe to pass to thread_pool_end_scheduled_work for the whole life of
 * the pool: before, during or after a run, once or many times. The pool
 * frees the work itself as soon as it no longer needs it: one-shot work
 * after its run, cancelled work at once (or after the run that is under way),
 * and whatever is left at thread_pool_uninit. */
VEK_API int thread_pool_put_scheduled_work(void* pool, const char* who, void** handle, int interval, int repeat,
                                           thread_pool_callback func, void* a, void* b, void* c);
/* Cancels scheduled work: a run that is already queued or under way may
 * still happen, no later one does. Returns 0 also for work that has already
 * ended; ERR_INVALID_PARAMETER for a NULL handle. */
VEK_API int thread_pool_end_scheduled_work(void* pool, void* handle);
/* Ends every worker and the scheduler, releases work that never ran, the
 * schedule and the pool; waits for running work to finish. */
VEK_API void thread_pool_uninit(void* pool);

VEK_END_DECLS

#endif
