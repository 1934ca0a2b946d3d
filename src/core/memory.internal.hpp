// State shared by the allocator's translation units (memory, memory.default,
// memory.debug). The counters are atomics read and written with relaxed
// loads and stores: as cheap as plain words, free of data races, and allowed
// to drift under contention in default mode, as documented.
#pragma once

#include <atomic>

#include "core/internal.hpp"

namespace vek::memory {

extern std::atomic<unsigned long> g_block;      // blocks in use (both modes)
extern std::atomic<unsigned long> g_block_max;  // largest single debug request
extern std::atomic<unsigned long> g_size;       // bytes in use, headers included
extern std::atomic<unsigned long> g_size_max;   // peak of g_size

inline unsigned long get(const std::atomic<unsigned long>& counter) {
  return counter.load(std::memory_order_relaxed);
}

// A plain read-modify-write: in default mode it runs without a lock (a lost
// update under contention is accepted); in debug mode under the list mutex.
inline void add(std::atomic<unsigned long>& counter, long delta) {
  counter.store(get(counter) + delta, std::memory_order_relaxed);
}

inline void raise_to(std::atomic<unsigned long>& peak, unsigned long value) {
  if (value > get(peak)) peak.store(value, std::memory_order_relaxed);
}

inline void count_block(long delta) { add(g_block, delta); }

// Calls the out-of-memory hook, if one is set.
inline void report_oom(int kind, size_t size, void* ptr) {
  if (g_vek_memory_err_func) g_vek_memory_err_func(kind, (int)size, ptr);
}

// Out-of-line failure reports of the default bodies, kept off the fast path.
[[gnu::cold, gnu::noinline]] void default_malloc_failed(size_t size, const char* file, int line);

// The default-mode bodies, inlined into both the exported vekDefault* entry
// points and the dispatching _vek* entry points.
// The counter moves before the call: nothing is left to do after a release
// (a tail call), and a failed request is counted as well.
inline void* default_malloc(size_t size, const char* file, int line) {
  count_block(+1);
  void* p = g_vek_memory_funcs.mallocFunc(size);
  if (__builtin_expect(p == nullptr, 0)) default_malloc_failed(size, file, line);
  return p;
}

inline void default_free(void* ptr) {
  count_block(-1);  // also for NULL: the drift is accepted
  g_vek_memory_funcs.freeFunc(ptr);
}

// Debug-mode bodies (memory.debug.cpp).
void* debug_mode_malloc(size_t size, const char* file, int line);
void* debug_mode_realloc(void* ptr, size_t size, const char* file, int line);
void debug_mode_free(void* ptr, const char* file, int line);

}  // namespace vek::memory
