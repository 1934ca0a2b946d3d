// Events: manual-reset gates on a mutex and a condition variable. A closed
// gate blocks waiters; opening it releases them and every later wait until
// the gate is closed again. The record also tells who waited last and how
// many are waiting, for diagnostics.
//
// The wait entry without a source position ("Backward", line 0) is kept here
// beside the positional one it forwards to.
#include <cerrno>
#include <ctime>
#include <pthread.h>

#include <vekutil/event.h>

#include "core/internal.hpp"
#include "threads/diag.hpp"
#include "core/instrumented.hpp"

namespace {

constexpr const char* kSource = "src/event.c";
constexpr int kNameCapacity = 68;
constexpr int kNameMax = 64;
constexpr int kWaitForever = -1;

struct EventRecord {
  pthread_mutex_t mux;
  pthread_cond_t cond;
  vek::Diag<int> is_locked;
  vek::Diag<int> wait_count;
  vek::Diag<int> usage_count;
  vek::Diag<const char*> block_by_file;
  vek::Diag<int> block_by_line;
  vek::Diag<int> err;
  char name[kNameCapacity];
  bool registered;  // listed in the registry (not after a failed init)
};

EventRecord* as_event(void* handle) { return static_cast<EventRecord*>(handle); }

// The log texts of one gate operation, by the step that failed.
struct GateMessages {
  const char* lock;
  const char* wake;
  const char* unlock_after_failed_wake;
  const char* unlock;
};

constexpr GateMessages kLockMessages = {
    "event_lock(name[%s]): pthread_mutex_lock failed[%d]\n",
    "event_lock(name[%s]): pthread_cond_broadcast failed[%d]\n",
    "event_lock(name[%s]): pthread_mutex_unlock1 failed[%d]\n",
    "event_lock(name[%s]): pthread_mutex_unlock2 failed[%d]\n",
};
constexpr GateMessages kUnlockMessages = {
    "event_unlock(name[%s]): pthread_mutex_lock failed[%d]\n",
    "event_unlock(name[%s]): pthread_cond_broadcast failed[%d]\n",
    "event_unlock(name[%s]): pthread_mutex_unlock1 failed[%d]\n",
    "event_unlock(name[%s]): pthread_mutex_unlock2 failed[%d]\n",
};
constexpr GateMessages kUnlock1Messages = {
    "event_unlock1(name[%s]): pthread_mutex_lock failed[%d]\n",
    "event_unlock1(name[%s]): pthread_cond_signal failed[%d]\n",
    "event_unlock1(name[%s]): pthread_mutex_unlock1 failed[%d]\n",
    "event_unlock1(name[%s]): pthread_mutex_unlock2 failed[%d]\n",
};

int fail(EventRecord* e, int rc, const char* message) {
  e->err.set(rc);
  log_vek_error(message, e->name, rc);
  return ERR_SYSTEM;
}

// Sets the gate under the record's mutex and wakes the waiters with wake
// (broadcast or signal). After a failed wake the mutex is still released.
int set_gate(void* handle, int closed, int (*wake)(pthread_cond_t*), const GateMessages& msg) {
  if (!handle) return ERR_INVALID_HANDLE;
  EventRecord* e = as_event(handle);
  int rc = pthread_mutex_lock(&e->mux);
  if (rc != 0) return fail(e, rc, msg.lock);
  e->is_locked.set(closed);
  rc = wake(&e->cond);
  if (rc != 0) {
    fail(e, rc, msg.wake);
    rc = pthread_mutex_unlock(&e->mux);
    if (rc != 0) fail(e, rc, msg.unlock_after_failed_wake);
    return ERR_SYSTEM;
  }
  rc = pthread_mutex_unlock(&e->mux);
  if (rc != 0) return fail(e, rc, msg.unlock);
  return 0;
}

// The log line of a failed wait step: name, time-out, caller's position,
// the step's error and errno.
int log_wait_failure(const EventRecord* e, const char* step, int timeout, const char* file, int line, int rc) {
  log_vek_error("event_wait(name[%s],timeout[%d],file[%s:%d]): %s failed[%d] errno[%d]\n", e->name, timeout,
                file ? file : "NULL", line, step, rc, errno);
  return ERR_SYSTEM;
}

// The deadline counts from the start of the current second: coarse on
// purpose, so a timed wait may end up to one second early. A time-out below
// -1 gives a negative nanosecond part, which the timed wait refuses.
struct timespec coarse_deadline(int timeout) {
  struct timespec deadline;
  deadline.tv_sec = time(nullptr) + timeout / 1000;
  deadline.tv_nsec = (long)(timeout % 1000) * 1000000L;
  return deadline;
}

// Called with the mutex held; releases it on every path.
int wait_until_open_timed(EventRecord* e, int timeout, const char* file, int line) {
  const struct timespec deadline = coarse_deadline(timeout);
  while (e->is_locked.get()) {
    e->wait_count.set(e->wait_count.get() + 1);  // under mux
    int rc = pthread_cond_timedwait(&e->cond, &e->mux, &deadline);
    e->wait_count.set(e->wait_count.get() - 1);
    if (rc == 0) continue;  // woken (perhaps by event_lock): test the gate again
    int urc = pthread_mutex_unlock(&e->mux);
    if (urc != 0) {
      e->err.set(urc);
      return log_wait_failure(e, "pthread_mutex_unlock2", timeout, file, line, urc);
    }
    if (rc == ETIMEDOUT) {
      e->err.set(ERR_TIMEOUT);
      return ERR_TIMEOUT;
    }
    // Historic wording: the line names the unlock although the wait failed.
    e->err.set(rc);
    return log_wait_failure(e, "pthread_mutex_unlock3", timeout, file, line, rc);
  }
  return 0;
}

// Called with the mutex held; releases it only on failure.
int wait_until_open(EventRecord* e, int timeout, const char* file, int line) {
  while (e->is_locked.get()) {
    e->wait_count.set(e->wait_count.get() + 1);  // under mux
    int rc = pthread_cond_wait(&e->cond, &e->mux);
    e->wait_count.set(e->wait_count.get() - 1);
    if (rc == 0) continue;
    log_wait_failure(e, "pthread_cond_wait", timeout, file, line, rc);
    int urc = pthread_mutex_unlock(&e->mux);
    if (urc != 0) log_wait_failure(e, "pthread_mutex_unlock1", timeout, file, line, urc);
    e->err.set(0);
    return ERR_SYSTEM;
  }
  return 0;
}

void render_header(JSON* row) {
  static const char* const kTitles[] = {"Name", "Is Locked", "Wait Count"};
  vek::add_titles(row, kTitles, 3);
}

void render_row(const void* item, JSON* row) {
  auto* e = static_cast<const EventRecord*>(item);
  json_AddItemToArray(row, json_CreateString(e->name));
  vek::add_number(row, e->is_locked.get());
  vek::add_number(row, e->wait_count.get());
}

void render_detail(const void* item, JSON* object) {
  auto* e = static_cast<const EventRecord*>(item);
  vek::add_text(object, "name", e->name);
  vek::add_count(object, "wait count", e->wait_count.get());
  vek::add_position(object, "block by file", e->block_by_file.get(), e->block_by_line.get());
  vek::add_count(object, "usage", e->usage_count.get());
  vek::add_count(object, "last error", e->err.get());
}

}  // namespace

void* g_event_instrument_handle = nullptr;

void* event_instrument_handle(void) {
  return vek::lazy_instrument_group(&g_event_instrument_handle, "event_instrument_handle()", render_header,
                                    render_row, render_detail);
}

int event_create_ex(void** handle, const char* name, int options) {
  if (!handle) return ERR_INVALID_HANDLE;
  auto* e = vek::alloc_record<EventRecord>(kSource, __LINE__);
  if (!e) return ERR_NO_MEMORY;
  vek::copy_name(e->name, kNameMax + 1, name);
  e->is_locked.set(1);
  *handle = e;
  // On failure the record stays with the caller, who reads the error and
  // deletes it.
  int rc = pthread_mutex_init(&e->mux, nullptr);
  if (rc != 0) {
    e->err.set(rc);
    log_vek_error("event_create(name[%s],options[%d]): pthread_mutex_init failed[%d]\n", e->name, options, rc);
    return ERR_SYSTEM;
  }
  rc = pthread_cond_init(&e->cond, nullptr);
  if (rc != 0) {
    e->err.set(rc);
    log_vek_error("event_create(name[%s],options[%d]): pthread_cond_init failed[%d]\n", e->name, options, rc);
    return ERR_SYSTEM;
  }
  e->registered = true;
  instrument_add(event_instrument_handle(), e);
  return 0;
}

int event_create(void** handle) { return event_create_ex(handle, nullptr, 0); }

int event_lock(void* handle) { return set_gate(handle, 1, pthread_cond_broadcast, kLockMessages); }
int event_unlock(void* handle) { return set_gate(handle, 0, pthread_cond_broadcast, kUnlockMessages); }
int event_unlock1(void* handle) { return set_gate(handle, 0, pthread_cond_signal, kUnlock1Messages); }

int _event_wait(void* handle, int timeout, const char* file, int line) {
  if (!handle) return ERR_INVALID_HANDLE;
  EventRecord* e = as_event(handle);
  e->usage_count.add(1);
  e->block_by_file.set(file);
  e->block_by_line.set(line);

  int rc = pthread_mutex_lock(&e->mux);
  if (rc != 0) {
    e->err.set(rc);
    return log_wait_failure(e, "pthread_mutex_lock", timeout, file, line, rc);
  }
  rc = (timeout == kWaitForever) ? wait_until_open(e, timeout, file, line)
                                 : wait_until_open_timed(e, timeout, file, line);
  if (rc != 0) return rc;  // the mutex is already released

  rc = pthread_mutex_unlock(&e->mux);
  if (rc != 0) {
    e->err.set(rc);
    return log_wait_failure(e, "pthread_mutex_unlock4", timeout, file, line, rc);
  }
  return 0;
}

int event_wait(void* handle, int timeout) { return _event_wait(handle, timeout, VEK_BACKWARD_FILE, 0); }

int event_delete(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  EventRecord* e = as_event(handle);
  if (e->registered) instrument_remove(vek::existing_group(&g_event_instrument_handle), e);
  int rc = pthread_cond_destroy(&e->cond);
  if (rc != 0) log_vek_error("event_delete(name[%s]): pthread_cond_destroy failed[%d]\n", e->name, rc);
  rc = pthread_mutex_destroy(&e->mux);
  if (rc != 0) log_vek_error("event_delete(name[%s]): pthread_mutex_destroy failed[%d]\n", e->name, rc);
  _vekFree(e, kSource, __LINE__);
  return 0;
}

int event_error(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  return as_event(handle)->err.get();
}
