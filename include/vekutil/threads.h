/* Threads with one stack-size policy and an optional priority step.
 *
 * A joinable thread is an opaque handle (void*) from thread_create or
 * thread_create_ex; a detached thread has no handle. Optional creation
 * parameters travel in THREAD_EX_ARGS. Results: 0 on success,
 * ERR_INVALID_HANDLE (-7008) for a NULL handle, ERR_INVALID_PARAMETER (-7004)
 * for a missing argument, ERR_NO_MEMORY (-7003), ERR_SYSTEM (-7006) when the
 * POSIX call failed.
 */
#ifndef VEKUTIL_THREADS_H
#define VEKUTIL_THREADS_H

#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* The start routine of a thread. */
typedef void* (*thread_function)(void* args);

/* Creation parameters; the field order is part of the interface. */
typedef struct _THREAD_EX_ARGS {
  const char* name; /* carried for callers such as the thread pool */
  int stack;        /* requested stack size in bytes; corrected in place by the create calls */
  int priority;     /* priority step: 0 none, 1 and 2 higher, -1 and -2 lower */
} THREAD_EX_ARGS;

/* Process-wide defaults: plain globals, set them at start-up before any
 * thread is created. The stack size starts at 1 MiB, the minimum at 0. A
 * non-zero default priority only switches the priority step on. */
VEK_API extern int g_thread_default_stack_size;
VEK_API extern int g_thread_default_stack_min;
VEK_API extern int g_thread_default_prio;
VEK_API void thread_set_stack_size(int size);
VEK_API void thread_set_stack_min(int size);
/* Stores prio; -1 is stored as 0. */
VEK_API void thread_set_default_prio(int prio);

/* A new record {NULL, g_thread_default_stack_size, 0}; free it with
 * thread_ex_delete. */
VEK_API int thread_ex_create(THREAD_EX_ARGS** ex);
VEK_API void thread_ex_delete(THREAD_EX_ARGS* ex);

/* Starts thread(args) as a joinable thread and stores its handle in *handle.
 * The stack size in ex->stack is corrected and written back: below
 * g_thread_default_stack_min it becomes that minimum, else below 16384 it
 * becomes 16384. Any failure of the thread creation itself gives -7006; the
 * handle then stays set so that thread_error can be read, and must be freed
 * with thread_delete. */
VEK_API int thread_create_ex(void** handle, thread_function thread, void* args, THREAD_EX_ARGS* ex);
VEK_API int thread_create(void** handle, thread_function thread, void* args);
/* The same for a detached thread, which has no handle. */
VEK_API int thread_create_detached_ex(thread_function func, void* args, THREAD_EX_ARGS* ex);
VEK_API int thread_create_detached(thread_function func, void* args);

/* Waits for the thread and stores its return value in *result (result may
 * be NULL). The handle stays allocated: free it with thread_delete. */
VEK_API int thread_join(void* handle, void** result);
/* Detaches the thread; a failure is only logged. */
VEK_API int thread_detach(void* handle);
/* Frees the record only; the thread is neither joined nor detached. */
VEK_API int thread_delete(void* handle);
VEK_API int thread_error(void* handle);

/* The thread's id as an int; for a NULL handle the calling thread's own. */
VEK_API int thread_id(void* handle);

/* Sleeps ms milliseconds, resuming after signals; 0 returns at once, -1
 * sleeps for ever. */
VEK_API void thread_sleep(int ms);

VEK_END_DECLS

#endif
