// Diagnostic fields of the lock and event records. They are written on the
// hot path and read by the instrumentation renderers from other threads
// without taking the object's lock, so they are atomics accessed with relaxed
// order: on x86 as cheap as plain words, and free of data races.
#pragma once

#include <atomic>

namespace vek {

template <class T>
class Diag {
 public:
  T get() const { return value_.load(std::memory_order_relaxed); }
  void set(T v) { value_.store(v, std::memory_order_relaxed); }
  // Exact even when several threads count at once.
  void add(T delta) { value_.fetch_add(delta, std::memory_order_relaxed); }

 private:
  std::atomic<T> value_;
};

static_assert(sizeof(Diag<int>) == sizeof(int) && sizeof(Diag<const char*>) == sizeof(const char*),
              "diagnostic fields keep the layout of plain fields");

}  // namespace vek
