// Named, instrumented mutexes. Every mutex is recursive, so a thread that
// re-enters a module it already holds never deadlocks. Beside the primitive
// the record keeps who created it and who locked it last, for diagnostics.
//
// The allocator's debug mode locks its own mutex (made here) around every
// allocation, and this module allocates the record through that allocator.
// While that mutex does not exist yet its handle is NULL, _mutex_lock returns
// ERR_INVALID_HANDLE without touching anything, and the allocator goes on;
// *handle is stored only once the record is complete.
//
// The entry points without a source position ("Backward", line 0) are kept
// here beside the positional ones they forward to.
#include <cerrno>
#include <ctime>
#include <pthread.h>

#include <vekutil/mutex.h>
#include <vekutil/timeutil.h>

#include "core/internal.hpp"
#include "threads/diag.hpp"
#include "core/instrumented.hpp"

// With GCC the lock path calls these through the GOT instead of a PLT
// stub: one jump less on every lock and unlock.
#if defined(__GNUC__) && !defined(__clang__)
extern "C" {
int pthread_mutex_lock(pthread_mutex_t*) __attribute__((noplt));
int pthread_mutex_unlock(pthread_mutex_t*) __attribute__((noplt));
time_t time(time_t*) __attribute__((noplt));
}
#endif

namespace {

constexpr const char* kSource = "src/mutex.c";
constexpr int kNameCapacity = 68;
constexpr int kNameMax = 64;

struct MutexRecord {
  pthread_mutex_t handle;
  int options;
  vek::Diag<int> err;
  char name[kNameCapacity];
  const char* created_by_file;
  int created_by_line;
  vek::Diag<const char*> lock_by_file;
  vek::Diag<int> lock_by_line;
  vek::Diag<int> lock_by_thread_id;
  vek::Diag<int> lock_timestamp_in_sec;
  vek::Diag<int> is_locked;
  vek::Diag<int> usage_count;
};

MutexRecord* as_mutex(void* handle) { return static_cast<MutexRecord*>(handle); }

bool is_instrumented(const MutexRecord* m) { return (m->options & MUTEX_OPT_NO_INSTRUMENT) == 0; }

int fail(MutexRecord* m, int rc) {
  m->err.set(rc);
  return ERR_SYSTEM;
}

// The failure paths are kept out of line so that the lock and unlock paths
// stay short.
[[gnu::cold, gnu::noinline]] int lock_failed(MutexRecord* m, int rc) {
  log_vek_error("mutex_lock(name[%s]): pthread_mutex_lock failed[%d]\n", m->name, rc);
  return fail(m, rc);
}

[[gnu::cold, gnu::noinline]] int unlock_failed(MutexRecord* m, int rc, const char* file, int line) {
  const char* by_file = m->lock_by_file.get();
  log_vek_error("mutex_unlock(name[%s]): at[%d:%s(%d)] pthread_mutex_unlock failed[%d] locked_by[%d:%s(%d)]\n",
                m->name, vek::current_thread_id(), file ? file : "NULL", line, rc, m->lock_by_thread_id.get(),
                by_file ? by_file : "NULL", m->lock_by_line.get());
  return fail(m, rc);
}

// Shared by the positional and the "Backward" entries, so neither pays a
// second exported call.
inline int lock_at(void* handle, const char* file, int line) {
  if (!handle) return ERR_INVALID_HANDLE;
  MutexRecord* m = as_mutex(handle);
  int rc = pthread_mutex_lock(&m->handle);
  if (__builtin_expect(rc != 0, 0)) return lock_failed(m, rc);
  // Written while holding the lock; usage_count needs no atomic increment.
  m->lock_by_file.set(file);
  m->lock_by_line.set(line);
  m->lock_by_thread_id.set(vek::current_thread_id());
  // time() is the clock behind time_now_in_sec(), called directly: the
  // exported hop would cost the lock path a noticeable share of its time.
  m->lock_timestamp_in_sec.set((int)time(nullptr));
  m->usage_count.set(m->usage_count.get() + 1);
  m->is_locked.set(1);
  return 0;
}

inline int unlock_at(void* handle, const char* file, int line) {
  if (!handle) return ERR_INVALID_HANDLE;
  MutexRecord* m = as_mutex(handle);
  m->is_locked.set(0);
  int rc = pthread_mutex_unlock(&m->handle);
  if (__builtin_expect(rc != 0, 0)) return unlock_failed(m, rc, file, line);
  return 0;
}

void render_header(JSON* row) {
  static const char* const kTitles[] = {"Name", "Is Locked", "Locked Time", "Usage"};
  vek::add_titles(row, kTitles, 4);
}

void render_row(const void* item, JSON* row) {
  auto* m = static_cast<const MutexRecord*>(item);
  json_AddItemToArray(row, json_CreateString(m->name));
  vek::add_number(row, m->is_locked.get());
  vek::add_number(row, m->lock_timestamp_in_sec.get());  // raw seconds, not an age
  vek::add_number(row, m->usage_count.get());
}

void render_detail(const void* item, JSON* object) {
  auto* m = static_cast<const MutexRecord*>(item);
  vek::add_text(object, "name", m->name);
  vek::add_position(object, "created by file", m->created_by_file, m->created_by_line);
  vek::add_text(object, "is_locked", m->is_locked.get() ? "True" : "False");
  vek::add_position(object, "lock by file", m->lock_by_file.get(), m->lock_by_line.get());
  vek::add_count(object, "lock by thread", m->lock_by_thread_id.get());
  // An age even when unlocked or never locked (then counted from the epoch).
  vek::add_text(object, "locked time",
                format("%d seconds ago", (int)time_now_in_sec() - m->lock_timestamp_in_sec.get()));
  vek::add_count(object, "usage count", m->usage_count.get());
  vek::add_count(object, "last error", m->err.get());
}

}  // namespace

void* g_mutex_instrument_handle = nullptr;

void* mutex_instrument_handle(void) {
  return vek::lazy_instrument_group(&g_mutex_instrument_handle, "mutex_instrument_handle()", render_header,
                                    render_row, render_detail);
}

int _mutex_create_ex(void** handle, const char* name, int options, const char* file, int line) {
  if (!handle) return ERR_INVALID_HANDLE;
  auto* m = vek::alloc_record<MutexRecord>(kSource, line);
  if (!m) {
    *handle = nullptr;
    return ERR_NO_MEMORY;
  }
  m->options = options;
  m->created_by_file = file;
  m->created_by_line = line;
  vek::copy_name(m->name, kNameMax + 1, name);
  // The static initialiser, not pthread_mutex_init: the kind is fixed to
  // recursive whatever the options say.
  const pthread_mutex_t recursive = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
  m->handle = recursive;
  if (is_instrumented(m)) instrument_add(mutex_instrument_handle(), m);
  *handle = m;
  return 0;
}

int mutex_create_ex(void** handle, const char* name, int options) {
  return _mutex_create_ex(handle, name, options, VEK_BACKWARD_FILE, 0);
}

int mutex_create(void** handle) { return mutex_create_ex(handle, nullptr, 0); }

int _mutex_lock(void* handle, const char* file, int line) { return lock_at(handle, file, line); }

int _mutex_trylock(void* handle, const char*, int) {
  if (!handle) return ERR_INVALID_HANDLE;
  MutexRecord* m = as_mutex(handle);
  int rc = pthread_mutex_trylock(&m->handle);
  if (rc == 0) return 0;
  if (rc == EBUSY) return 1;
  log_vek_error("mutex_trylock(name[%s]): pthread_mutex_trylock failed[%d]\n", m->name, rc);
  return fail(m, rc);
}

int _mutex_unlock(void* handle, const char* file, int line) { return unlock_at(handle, file, line); }

int mutex_lock(void* handle) { return lock_at(handle, VEK_BACKWARD_FILE, 0); }
int mutex_trylock(void* handle) { return _mutex_trylock(handle, VEK_BACKWARD_FILE, 0); }
int mutex_unlock(void* handle) { return unlock_at(handle, VEK_BACKWARD_FILE, 0); }

int mutex_delete(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  MutexRecord* m = as_mutex(handle);
  if (is_instrumented(m)) instrument_remove(vek::existing_group(&g_mutex_instrument_handle), m);
  // Destroy refuses a held mutex: release it once and try again. The record
  // is freed whatever happened.
  if (pthread_mutex_destroy(&m->handle) != 0) {
    int rc = pthread_mutex_unlock(&m->handle);
    if (rc != 0) log_vek_error("mutex_delete(name[%s]): pthread_mutex_unlock failed[%d]\n", m->name, rc);
    rc = pthread_mutex_destroy(&m->handle);
    if (rc != 0) log_vek_error("mutex_delete(name[%s]): pthread_mutex_destroy failed[%d]\n", m->name, rc);
  }
  _vekFree(m, kSource, __LINE__);
  return 0;
}

int mutex_error(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  return as_mutex(handle)->err.get();
}
