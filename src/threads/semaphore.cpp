// Counting semaphores on process-private POSIX semaphores. Waits resume
// after signals; a timed wait gives up at an absolute wall-clock deadline.
#include <cerrno>
#include <ctime>
#include <semaphore.h>

#include <vekutil/semaphore.h>
#include <vekutil/timeutil.h>

#include "core/internal.hpp"
#include "threads/diag.hpp"

namespace {

constexpr const char* kSource = "src/semaphore.c";

struct SemRecord {
  sem_t handle;
  vek::Diag<int> err;  // last errno, or ERR_TIMEOUT after a timed-out wait
};

SemRecord* as_sem(void* handle) { return static_cast<SemRecord*>(handle); }

// Records errno and logs message with it (message takes the error last).
int fail_errno(SemRecord* s, const char* message) {
  int error = errno;
  s->err.set(error);
  log_vek_error(message, error);
  return ERR_SYSTEM;
}

// Makes the record and its semaphore. If sem_init fails the record stays
// with the caller, who reads the error and deletes it; log(errno) writes
// the caller's line.
template <class Log>
int create_semaphore(void** handle, int initial_value, Log log) {
  if (!handle) return ERR_INVALID_HANDLE;
  auto* s = vek::alloc_record<SemRecord>(kSource, __LINE__);
  if (!s) return ERR_NO_MEMORY;
  *handle = s;
  if (sem_init(&s->handle, 0, (unsigned)initial_value) != 0) {
    int error = errno;
    s->err.set(error);
    log(error);
    return ERR_SYSTEM;
  }
  return 0;
}

}  // namespace

int semaphore_create_ex(void** handle, int initial_value) {
  return create_semaphore(handle, initial_value, [initial_value](int error) {
    log_vek_error("semaphore_create_ex(initial[%d]): sem_init failed[%d]\n", initial_value, error);
  });
}

int semaphore_create(void** handle) {
  return create_semaphore(handle, 0, [](int error) { log_vek_error("semaphore_create(): sem_init failed[%d]\n", error); });
}

int semaphore_wait(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  SemRecord* s = as_sem(handle);
  int rc;
  while ((rc = sem_wait(&s->handle)) != 0 && errno == EINTR) {
  }
  if (rc != 0) return fail_errno(s, "semaphore_wait(): sem_wait failed[%d]\n");
  return 0;
}

int semaphore_timedwait(void* handle, int ms) {
  if (!handle) return ERR_INVALID_HANDLE;
  SemRecord* s = as_sem(handle);
  const unsigned long long deadline_ms = (unsigned long long)(time_now() + ms);
  const struct timespec deadline = {(time_t)(deadline_ms / 1000), (long)(deadline_ms % 1000) * 1000000L};
  int rc;
  while ((rc = sem_timedwait(&s->handle, &deadline)) != 0 && errno == EINTR) {
  }
  if (rc == 0) return 0;
  if (errno == ETIMEDOUT) {
    s->err.set(ERR_TIMEOUT);
    return ERR_TIMEOUT;
  }
  int error = errno;
  s->err.set(error);
  log_vek_error("semaphore_timedwait(ms[%d]): sem_timedwait failed[%d]\n", ms, error);
  return ERR_SYSTEM;
}

int semaphore_signal(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  SemRecord* s = as_sem(handle);
  if (sem_post(&s->handle) != 0) return fail_errno(s, "semaphore_signal(): sem_post failed[%d]\n");
  return 0;
}

int semaphore_count(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  SemRecord* s = as_sem(handle);
  int value = 0;
  if (sem_getvalue(&s->handle, &value) != 0) return fail_errno(s, "semaphore_count(): sem_getvalue failed[%d]\n");
  return value;
}

int semaphore_delete(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  SemRecord* s = as_sem(handle);
  if (sem_destroy(&s->handle) != 0) log_vek_error("semaphore_delete(): sem_destroy failed[%d]\n", errno);
  _vekFree(s, kSource, __LINE__);
  return 0;
}

int semaphore_error(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  return as_sem(handle)->err.get();
}
