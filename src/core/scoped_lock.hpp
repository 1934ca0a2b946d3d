// vek::ScopedLock: the one guard the library uses for its own locking. It
// holds an instrumented mutex, a read-write lock (for reading or writing) or
// a raw pthread mutex from construction to the end of the scope, so every
// way out of a function releases it. Not installed.
//
//   vek::ScopedLock guard(q->mux, kSource, __LINE__);                 // mutex
//   vek::ScopedLock guard(l->lock, kSource, __LINE__, vek::ScopedLock::kRead);
//   vek::ScopedLock guard(raw_pthread_mutex);                         // bootstrapping
//
// A null handle is "held" without locking: objects made without a lock (and
// the allocator before its mutex exists) use the same code path. Positional
// locks record file and line like every other lock of the library; the
// unlock is booked at the line of the guard.
#pragma once

#include <pthread.h>

#include <vekutil/mutex.h>
#include <vekutil/rwlock.h>

namespace vek {

class ScopedLock {
 public:
  enum Mode { kMutex, kRead, kWrite };

  ScopedLock(void* handle, const char* file, int line, Mode mode = kMutex)
      : handle_(handle), file_(file), line_(line), mode_(mode) {
    if (!handle_) return;
    int rc;
    switch (mode_) {
      case kRead: rc = _rwlock_readlock(handle_, file_, line_); break;
      case kWrite: rc = _rwlock_writelock(handle_, file_, line_); break;
      default: rc = _mutex_lock(handle_, file_, line_); break;
    }
    held_ = rc == 0;
  }

  explicit ScopedLock(pthread_mutex_t& raw) : raw_(&raw) { held_ = pthread_mutex_lock(raw_) == 0; }

  ~ScopedLock() {
    if (!held_) return;
    if (raw_)
      pthread_mutex_unlock(raw_);
    else if (mode_ == kMutex)
      _mutex_unlock(handle_, file_, line_);
    else
      rwlock_unlock(handle_);
  }

  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

  // False only when a lock exists and taking it failed.
  bool held() const { return held_ || (!handle_ && !raw_); }

  // Hands a held lock over to the caller, who releases it later.
  void keep() { held_ = false; }

 private:
  void* handle_ = nullptr;
  pthread_mutex_t* raw_ = nullptr;
  const char* file_ = nullptr;
  int line_ = 0;
  Mode mode_ = kMutex;
  bool held_ = false;
};

}  // namespace vek
