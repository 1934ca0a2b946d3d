// Diagnostic fields of the lock and event records. They are written on the
// hot path and read by the instrumentation renderers from other threads
// without taking the object's lock, so they are atomics accessed with relaxed
// order: on x86 as cheap as plain words, and free of data races.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace vek {

template <class T>
class Diag {
 public:
  T get() const { return value_.load(std::memory_order_relaxed); }
  void set(T v) { value_.store(v, std::memory_order_relaxed); }
  // Exact even when several threads count at once.
  void add(T delta) { value_.fetch_add(delta, std::memory_order_relaxed); }
  // A plain read-modify-write without the bus lock: concurrent counts may be
  // lost, which diagnostic counters on the read-lock path accept in exchange
  // for not paying an atomic instruction per lock.
  void bump() { value_.store(value_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed); }

 private:
  std::atomic<T> value_;
};

static_assert(sizeof(Diag<int>) == sizeof(int) && sizeof(Diag<const char*>) == sizeof(const char*),
              "diagnostic fields keep the layout of plain fields");

// The calling thread's id as the int that thread_id(NULL) reports. Every
// lock records it, so it is kept per thread after the first call (static
// TLS: a plain %fs-relative load, no call).
inline int current_thread_id() {
  static thread_local int cached __attribute__((tls_model("initial-exec"))) = 0;
  if (__builtin_expect(cached == 0, 0)) cached = (int)(uintptr_t)pthread_self();
  return cached;
}

}  // namespace vek
