// Thread creation with the library's stack-size policy and priority step,
// joining, detaching, thread ids and signal-proof sleeping.
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <pthread.h>
#include <sched.h>

#include <vekutil/threads.h>

#include "core/internal.hpp"
#include "threads/diag.hpp"

// Callers fill this record themselves: its layout is part of the interface.
static_assert(offsetof(THREAD_EX_ARGS, name) == 0 && offsetof(THREAD_EX_ARGS, stack) == sizeof(const char*) &&
                  offsetof(THREAD_EX_ARGS, priority) == sizeof(const char*) + sizeof(int),
              "THREAD_EX_ARGS keeps its field order");

namespace {

constexpr const char* kSource = "src/threads.c";
constexpr int kStackFloor = 16384;

struct ThreadRecord {
  pthread_t handle;
  int err;
};

// The log texts of one creation flavour. The joinable flavour's stack-size
// message carries only the error; the detached one also names the size.
struct CreateMessages {
  bool detached;
  const char* attr_init;
  const char* setstacksize;
  const char* getschedparam;
  const char* setschedparam;
  const char* create;
  const char* attr_destroy;
};

constexpr CreateMessages kJoinable = {
    false,
    "thread_create_ex(): pthread_attr_init failed[%d]\n",
    "thread_create_ex(): pthread_attr_setstacksize failed[%d]\n",
    "thread_create_ex(): pthread_attr_getschedparam failed[%d]\n",
    "thread_create_ex(%d): pthread_attr_setschedparam(%d) failed[%d]\n",
    "thread_create_ex(): pthread_create failed[%d]\n",
    "thread_create_ex(): pthread_attr_destroy failed[%d]\n",
};

constexpr CreateMessages kDetached = {
    true,
    "thread_create_detached_ex(): pthread_attr_init failed[%d]\n",
    "thread_create_detached_ex(%d): pthread_attr_setstacksize failed[%d]\n",
    "thread_create_detached_ex(): pthread_attr_getschedparam failed[%d]\n",
    "thread_create_detached_ex(%d): pthread_attr_setschedparam(%d) failed[%d]\n",
    "thread_create_detached_ex(): pthread_create failed[%d]\n",
    "thread_create_detached_ex(): pthread_attr_destroy failed[%d]\n",
};

// The configured minimum is tested before the platform floor, so a minimum
// below 16384 wins over the floor.
int corrected_stack_size(int requested) {
  if (requested < g_thread_default_stack_min) return g_thread_default_stack_min;
  if (requested < kStackFloor) return kStackFloor;
  return requested;
}

int priority_step(int step) {
  switch (step) {
    case 1: return 20;
    case 2: return 40;
    case -1: return -10;
    case -2: return -20;
    default: return 0;
  }
}

// Applies the priority step to the attributes. Under the default scheduling
// policy the priority read back is 0, and then no step is applied.
void apply_priority(pthread_attr_t* attr, int step, const CreateMessages& msg) {
  if (step == 0 && g_thread_default_prio == 0) return;
  struct sched_param param = {};
  int rc = pthread_attr_getschedparam(attr, &param);
  if (rc != 0) log_vek_error(msg.getschedparam, rc);
  if (param.sched_priority != 0) param.sched_priority += priority_step(step);
  rc = pthread_attr_setschedparam(attr, &param);
  if (rc != 0) log_vek_error(msg.setschedparam, step, param.sched_priority, rc);
}

// Prepares the attributes: stack size (written back into ex), priority and,
// for detached threads, the detach state. Failures are logged; creation goes
// on with whatever the attributes hold.
void prepare_attributes(pthread_attr_t* attr, THREAD_EX_ARGS* ex, const CreateMessages& msg) {
  int rc = pthread_attr_init(attr);
  if (rc != 0) log_vek_error(msg.attr_init, rc);

  ex->stack = corrected_stack_size(ex->stack);
  rc = pthread_attr_setstacksize(attr, (size_t)ex->stack);
  if (rc != 0) {
    if (msg.detached)
      log_vek_error(msg.setstacksize, ex->stack, rc);
    else
      log_vek_error(msg.setstacksize, rc);
  }

  apply_priority(attr, ex->priority, msg);

  if (msg.detached) {
    rc = pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED);
    if (rc != 0)
      log_vek_error("thread_create_detached_ex(): pthread_attr_setdetachstate(PTHREAD_CREATE_DETACHED) failed[%d]\n", rc);
  }
}

void destroy_attributes(pthread_attr_t* attr, const CreateMessages& msg) {
  int rc = pthread_attr_destroy(attr);
  if (rc != 0) log_vek_error(msg.attr_destroy, rc);
}

// Starts the thread; returns 0 or the pthread_create error number (already
// logged). Every non-zero result is a failure: pthread_create reports errors
// as positive numbers.
int start_thread(pthread_t* id, thread_function func, void* args, THREAD_EX_ARGS* ex, const CreateMessages& msg) {
  pthread_attr_t attr;
  prepare_attributes(&attr, ex, msg);
  int rc = pthread_create(id, &attr, func, args);
  if (rc != 0) log_vek_error(msg.create, rc);
  destroy_attributes(&attr, msg);
  return rc;
}

THREAD_EX_ARGS default_args() { return THREAD_EX_ARGS{nullptr, g_thread_default_stack_size, 0}; }

}  // namespace

int g_thread_default_stack_size = 1048576;
int g_thread_default_stack_min = 0;
int g_thread_default_prio = 0;

void thread_set_stack_size(int size) { g_thread_default_stack_size = size; }
void thread_set_stack_min(int size) { g_thread_default_stack_min = size; }
void thread_set_default_prio(int prio) { g_thread_default_prio = (prio == -1) ? 0 : prio; }

int thread_ex_create(THREAD_EX_ARGS** ex) {
  if (!ex) return ERR_INVALID_PARAMETER;
  auto* record = static_cast<THREAD_EX_ARGS*>(_vekMalloc(sizeof(THREAD_EX_ARGS), kSource, __LINE__));
  if (!record) return ERR_NO_MEMORY;
  *record = default_args();
  *ex = record;
  return 0;
}

void thread_ex_delete(THREAD_EX_ARGS* ex) {
  if (ex) _vekFree(ex, kSource, __LINE__);
}

int thread_create_ex(void** handle, thread_function thread, void* args, THREAD_EX_ARGS* ex) {
  if (!handle) return ERR_INVALID_HANDLE;
  if (!thread || !ex) return ERR_INVALID_PARAMETER;
  auto* record = vek::alloc_record<ThreadRecord>(kSource, __LINE__);
  if (!record) return ERR_NO_MEMORY;
  *handle = record;
  int rc = start_thread(&record->handle, thread, args, ex, kJoinable);
  if (rc != 0) {
    record->err = rc;
    return ERR_SYSTEM;
  }
  return 0;
}

int thread_create(void** handle, thread_function thread, void* args) {
  THREAD_EX_ARGS ex = default_args();
  return thread_create_ex(handle, thread, args, &ex);
}

int thread_create_detached_ex(thread_function func, void* args, THREAD_EX_ARGS* ex) {
  if (!func || !ex) return ERR_INVALID_PARAMETER;
  pthread_t id;
  return start_thread(&id, func, args, ex, kDetached) == 0 ? 0 : ERR_SYSTEM;
}

int thread_create_detached(thread_function func, void* args) {
  THREAD_EX_ARGS ex = default_args();
  return thread_create_detached_ex(func, args, &ex);
}

int thread_join(void* handle, void** result) {
  if (!handle) return ERR_INVALID_HANDLE;
  auto* record = static_cast<ThreadRecord*>(handle);
  int rc = pthread_join(record->handle, result);
  if (rc != 0) {
    record->err = rc;
    log_vek_error("thread_join(): pthread_join failed[%d]\n", rc);
    return ERR_SYSTEM;
  }
  return 0;
}

int thread_detach(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  int rc = pthread_detach(static_cast<ThreadRecord*>(handle)->handle);
  if (rc != 0) log_vek_error("thread_detach(): pthread_detach failed[%d]\n", rc);
  return 0;
}

int thread_delete(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  _vekFree(handle, kSource, __LINE__);
  return 0;
}

int thread_error(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  return static_cast<ThreadRecord*>(handle)->err;
}

int thread_id(void* handle) {
  if (!handle) return vek::current_thread_id();
  return (int)(uintptr_t)static_cast<ThreadRecord*>(handle)->handle;
}

void thread_sleep(int ms) {
  if (ms == 0) return;
  if (ms == -1) {
    for (;;) {
      struct timespec forever = {1000000, 0};
      while (nanosleep(&forever, &forever) != 0 && errno == EINTR) {
      }
    }
  }
  // A negative time gives an invalid nanosecond part: nanosleep refuses it
  // with EINVAL and we return at once.
  struct timespec remaining = {ms / 1000, (long)(ms % 1000) * 1000000L};
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}
