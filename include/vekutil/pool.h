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

/* Starts minthreads workers at once and lets the pool grow to maxthreads.
 * stack_size is ignored: workers always get 32768 bytes. *pool stays unset
 * if the pool cannot be built. */
VEK_API void thread_pool_init(void** pool, int minthreads, int maxthreads, int stack_size);
VEK_API void thread_pool_init2(void** pool, thread_pool_put_work_callback put_callback,
                               thread_pool_put_scheduled_work_callback put_sch_callback,
                               thread_pool_end_scheduled_work_callback end_sch_callback);

/* One-shot work. Returns the queue depth after the put (>= 1), or a
 * negative code. who names the caller for a forwarding pool. */
VEK_API int thread_pool_put_work(void* pool, const char* who, thread_pool_callback func, void* a, void* b, void* c);
/* Runs func interval ms from now and, if repeat is non-zero, every interval
 * ms after that. *handle (if given) receives the handle for cancelling. */
VEK_API int thread_pool_put_scheduled_work(void* pool, const char* who, void** handle, int interval, int repeat,
                                           thread_pool_callback func, void* a, void* b, void* c);
/* Cancels scheduled work: a run that is already due may still happen. A
 * cancelled handle stays valid (it may be cancelled again); a one-shot
 * handle is gone once its work has run. */
VEK_API int thread_pool_end_scheduled_work(void* pool, void* handle);
/* Ends every worker and the scheduler, releases work that never ran and
 * frees the pool; waits for running work to finish. The schedule's tree
 * (with any work still scheduled) and its scheduled event stay allocated. */
VEK_API void thread_pool_uninit(void* pool);

VEK_END_DECLS

#endif
