// Scheduled events: interruptible sleeps on a mutex and a condition
// variable. schevent_interrupt leaves a pending flag that the next wake-up
// consumes, so an interrupt given while nobody sleeps is not lost; the end
// of every timed sleep clears it.
#include <cerrno>
#include <pthread.h>
#include <sys/time.h>

#include <vekutil/schevent.h>

#include "core/internal.hpp"
#include "threads/diag.hpp"

namespace {

constexpr const char* kSource = "src/schevent.c";
constexpr long kNanosPerSecond = 1000000000L;

struct SchEventRecord {
  pthread_mutex_t mux;
  pthread_cond_t cond;
  int test_val;  // 1 = an interrupt is pending; guarded by mux
  vek::Diag<int> err;
};

SchEventRecord* as_schevent(void* handle) { return static_cast<SchEventRecord*>(handle); }

// Moves whole seconds out of (or borrows them into) the nanosecond part.
struct timespec normalised(long long seconds, long long nanos) {
  while (nanos >= kNanosPerSecond) {
    nanos -= kNanosPerSecond;
    ++seconds;
  }
  while (nanos < 0) {
    nanos += kNanosPerSecond;
    --seconds;
  }
  return {(time_t)seconds, (long)nanos};
}

int fail(SchEventRecord* s, int rc) {
  s->err.set(rc);
  return ERR_SYSTEM;
}

// Sleeps until deadline unless an interrupt is pending or arrives. Returns
// 0 when the time is up, ERR_INTERRUPTED, or ERR_SYSTEM. log(step, error)
// writes the caller's line for a failed step.
template <class Log>
int sleep_until(SchEventRecord* s, const struct timespec& deadline, Log log) {
  int rc = pthread_mutex_lock(&s->mux);
  if (rc != 0) {
    log("pthread_mutex_lock", rc);
    return fail(s, rc);
  }
  for (;;) {
    if (s->test_val) {
      s->test_val = 0;
      rc = pthread_mutex_unlock(&s->mux);
      if (rc != 0) {
        log("pthread_mutex_unlock3", rc);
        return fail(s, rc);
      }
      s->err.set(ERR_INTERRUPTED);
      return ERR_INTERRUPTED;
    }
    rc = pthread_cond_timedwait(&s->cond, &s->mux, &deadline);
    if (rc != 0) break;
  }
  // The sleep is over: an interrupt that raced with the expiry is dropped.
  s->test_val = 0;
  if (rc == ETIMEDOUT) {
    rc = pthread_mutex_unlock(&s->mux);
    if (rc != 0) {
      log("pthread_mutex_unlock1", rc);
      return fail(s, rc);
    }
    return 0;
  }
  fail(s, rc);
  log("pthread_cond_timedwait", rc);
  rc = pthread_mutex_unlock(&s->mux);
  if (rc != 0) {
    log("pthread_mutex_unlock2", rc);
    fail(s, rc);
  }
  return ERR_SYSTEM;
}

}  // namespace

int schevent_create(void** handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  auto* s = vek::alloc_record<SchEventRecord>(kSource, __LINE__);
  if (!s) return ERR_NO_MEMORY;
  *handle = s;
  int rc = pthread_mutex_init(&s->mux, nullptr);
  if (rc != 0) {
    log_vek_error("schevent_create(): pthread_mutex_init failed[%d]\n", rc);
    return fail(s, rc);
  }
  rc = pthread_cond_init(&s->cond, nullptr);
  if (rc != 0) {
    log_vek_error("schevent_create(): pthread_cond_init failed[%d]\n", rc);
    return fail(s, rc);
  }
  return 0;
}

int schevent_wait(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  SchEventRecord* s = as_schevent(handle);
  int rc = pthread_mutex_lock(&s->mux);
  if (rc != 0) {
    log_vek_error("schevent_wait(): pthread_mutex_lock failed[%d]\n", rc);
    return fail(s, rc);
  }
  while (!s->test_val) {
    rc = pthread_cond_wait(&s->cond, &s->mux);
    if (rc != 0) {
      log_vek_error("schevent_wait(): pthread_cond_wait failed[%d]\n", rc);
      rc = pthread_mutex_unlock(&s->mux);
      if (rc != 0) {
        log_vek_error("schevent_wait(): pthread_cond_wait failed[%d]\n", rc);
        return fail(s, rc);
      }
      s->err.set(0);
      return ERR_SYSTEM;
    }
  }
  s->test_val = 0;
  rc = pthread_mutex_unlock(&s->mux);
  if (rc != 0) {
    log_vek_error("schevent_wait(): pthread_mutex_unlock failed[%d]\n", rc);
    return fail(s, rc);
  }
  return 0;
}

int schevent_waitfor(void* handle, int timeout) {
  if (!handle) return ERR_INVALID_HANDLE;
  SchEventRecord* s = as_schevent(handle);
  if (timeout < -1) {
    s->err.set(ERR_INVALID_PARAMETER);
    return ERR_INVALID_PARAMETER;
  }
  // -1 is a deadline one millisecond in the past, not an endless sleep.
  struct timeval now;
  gettimeofday(&now, nullptr);
  const struct timespec deadline =
      normalised((long long)now.tv_sec + timeout / 1000, (long long)now.tv_usec * 1000 + (long long)(timeout % 1000) * 1000000);
  return sleep_until(s, deadline, [timeout](const char* step, int rc) {
    log_vek_error("schevent_waitfor(timeout[%d]): %s failed[%d]\n", timeout, step, rc);
  });
}

int schevent_waituntil(void* handle, long long d) {
  if (!handle) return ERR_INVALID_HANDLE;
  long long nanos = (d % 1000) * 1000000;
  const struct timespec deadline = {(time_t)(d / 1000), nanos < 0 ? 0L : (long)nanos};
  // These lines carry the wording "d[%ll]" literally, as they always have;
  // the time itself is not printed.
  return sleep_until(as_schevent(handle), deadline, [](const char* step, int rc) {
    log_vek_error("schevent_waituntil(d[%%ll]): %s failed[%d]\n", step, rc);
  });
}

int schevent_interrupt(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  SchEventRecord* s = as_schevent(handle);
  int rc = pthread_mutex_lock(&s->mux);
  if (rc != 0) {
    log_vek_error("schevent_interrupt(): pthread_mutex_lock failed[%d]\n", rc);
    return fail(s, rc);
  }
  s->test_val = 1;
  rc = pthread_cond_broadcast(&s->cond);
  if (rc != 0) {
    log_vek_error("schevent_interrupt(): pthread_cond_broadcast failed[%d]\n", rc);
    fail(s, rc);
    rc = pthread_mutex_unlock(&s->mux);
    if (rc != 0) log_vek_error("schevent_interrupt(): pthread_mutex_unlock1 failed[%d]\n", rc);
    return ERR_SYSTEM;
  }
  rc = pthread_mutex_unlock(&s->mux);
  if (rc != 0) {
    log_vek_error("schevent_interrupt(): pthread_mutex_unlock2 failed[%d]\n", rc);
    return fail(s, rc);
  }
  return 0;
}

int schevent_delete(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  SchEventRecord* s = as_schevent(handle);
  int rc = pthread_cond_destroy(&s->cond);
  if (rc != 0) log_vek_error("schevent_delete(): pthread_cond_destroy failed[%d]\n", rc);
  rc = pthread_mutex_destroy(&s->mux);
  if (rc != 0) log_vek_error("schevent_delete(): pthread_mutex_destroy failed[%d]\n", rc);
  _vekFree(s, kSource, __LINE__);
  return 0;
}

int schevent_error(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  return as_schevent(handle)->err.get();
}
