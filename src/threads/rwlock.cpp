// Named, instrumented read-write locks. The record counts read locks, write
// locks and unlocks since creation, so that (reads + writes - unlocks) shows
// how many holders there are right now. Readers count concurrently, hence
// the atomic counters.
//
// The entry points without a source position ("Backward", line 0) are kept
// here beside the positional ones they forward to.
#include <pthread.h>

#include <vekutil/rwlock.h>

#include "core/internal.hpp"
#include "threads/diag.hpp"
#include "core/instrumented.hpp"

namespace {

constexpr const char* kSource = "src/rwlock.c";
constexpr int kNameCapacity = 68;
constexpr int kNameMax = 64;

struct RwlockRecord {
  pthread_rwlock_t handle;
  vek::Diag<int> readlock_count;
  vek::Diag<int> writelock_count;
  vek::Diag<int> unlock_count;
  vek::Diag<const char*> last_lock_by_file;
  vek::Diag<int> last_lock_by_line;
  vek::Diag<int> err;
  char name[kNameCapacity];
  bool registered;  // listed in the registry (not after a failed init)
};

RwlockRecord* as_rwlock(void* handle) { return static_cast<RwlockRecord*>(handle); }

int fail(RwlockRecord* r, int rc) {
  r->err.set(rc);
  return ERR_SYSTEM;
}

void record_lock(RwlockRecord* r, vek::Diag<int>& counter, const char* file, int line) {
  counter.bump();
  r->last_lock_by_file.set(file);
  r->last_lock_by_line.set(line);
}

// Readers, writers and unlocks are counted apart and without atomic
// increments, so under contention the difference may drift; it only feeds
// diagnostics.
int current_holders(const RwlockRecord* r) {
  return r->readlock_count.get() + r->writelock_count.get() - r->unlock_count.get();
}

void render_header(JSON* row) {
  static const char* const kTitles[] = {"Name", "Current Lock Count"};
  vek::add_titles(row, kTitles, 2);
}

void render_row(const void* item, JSON* row) {
  auto* r = static_cast<const RwlockRecord*>(item);
  json_AddItemToArray(row, json_CreateString(r->name));
  vek::add_number(row, current_holders(r));
}

void render_detail(const void* item, JSON* object) {
  auto* r = static_cast<const RwlockRecord*>(item);
  vek::add_text(object, "name", r->name);
  vek::add_position(object, "last lock by file", r->last_lock_by_file.get(), r->last_lock_by_line.get());
  vek::add_count(object, "readlock count", r->readlock_count.get());
  vek::add_count(object, "writelock count", r->writelock_count.get());
  vek::add_count(object, "unlock count", r->unlock_count.get());
  vek::add_count(object, "delta", current_holders(r));
  vek::add_count(object, "last error", r->err.get());
}

}  // namespace

void* g_rwlock_instrument_handle = nullptr;

void* rwlock_instrument_handle(void) {
  return vek::lazy_instrument_group(&g_rwlock_instrument_handle, "rwlock_instrument_handle()", render_header,
                                    render_row, render_detail);
}

int rwlock_create_ex(void** handle, int, const char* name) {
  if (!handle) return ERR_INVALID_HANDLE;
  auto* r = vek::alloc_record<RwlockRecord>(kSource, __LINE__);
  if (!r) {
    log_vek_error("rwlock_create(): vekMalloc failed\n");
    return ERR_NO_MEMORY;
  }
  vek::copy_name(r->name, kNameMax + 1, name);
  *handle = r;
  int rc = pthread_rwlock_init(&r->handle, nullptr);
  if (rc != 0) {
    // The record stays with the caller, who reads the error and deletes it.
    log_vek_error("rwlock_create(%s): pthread_rwlock_init failed[%d]\n", r->name, rc);
    return fail(r, rc);
  }
  r->registered = true;
  instrument_add(rwlock_instrument_handle(), r);
  return 0;
}

int rwlock_create(void** handle) { return rwlock_create_ex(handle, 0, nullptr); }

int _rwlock_readlock(void* handle, const char* file, int line) {
  if (!handle) return ERR_INVALID_HANDLE;
  RwlockRecord* r = as_rwlock(handle);
  int rc = pthread_rwlock_rdlock(&r->handle);
  if (rc != 0) {
    log_vek_error("rwlock_readlock(%s): pthread_rwlock_rdlock failed[%d]\n", r->name, rc);
    return fail(r, rc);
  }
  record_lock(r, r->readlock_count, file, line);
  return 0;
}

int _rwlock_writelock(void* handle, const char* file, int line) {
  if (!handle) return ERR_INVALID_HANDLE;
  RwlockRecord* r = as_rwlock(handle);
  int rc = pthread_rwlock_wrlock(&r->handle);
  if (rc != 0) {
    log_vek_error("rwlock_writelock(%s): pthread_rwlock_wrlock failed[%d]\n", r->name, rc);
    return fail(r, rc);
  }
  record_lock(r, r->writelock_count, file, line);
  return 0;
}

int rwlock_readlock(void* handle) { return _rwlock_readlock(handle, VEK_BACKWARD_FILE, 0); }
int rwlock_writelock(void* handle) { return _rwlock_writelock(handle, VEK_BACKWARD_FILE, 0); }

int rwlock_unlock(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  RwlockRecord* r = as_rwlock(handle);
  r->unlock_count.bump();  // counted before the attempt: failed unlocks count too
  int rc = pthread_rwlock_unlock(&r->handle);
  if (rc != 0) {
    log_vek_error("rwlock_unlock(%s): pthread_rwlock_unlock failed[%d]\n", r->name, rc);
    return fail(r, rc);
  }
  return 0;
}

int rwlock_delete(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  RwlockRecord* r = as_rwlock(handle);
  if (r->registered) instrument_remove(vek::existing_group(&g_rwlock_instrument_handle), r);
  pthread_rwlock_destroy(&r->handle);  // result deliberately ignored
  _vekFree(r, kSource, __LINE__);
  return 0;
}

int rwlock_error(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  return as_rwlock(handle)->err.get();
}
