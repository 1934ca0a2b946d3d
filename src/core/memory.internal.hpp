// State shared by the allocator's translation units (memory, memory.default,
// memory.debug). The counters are atomics read and written with relaxed
// loads and stores: as cheap as plain words and free of data races. Debug
// mode changes them under its list mutex. Default mode counts blocks per
// thread (see BlockSlot), so no update is lost under contention.
#pragma once

#include <atomic>

#include "core/internal.hpp"

namespace vek::memory {

extern std::atomic<unsigned long> g_block;      // blocks in use (debug mode)
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

// Default-mode block counts, one slot per thread: only the owning thread
// writes its slot (a plain load and store, no bus lock), readers add all
// slots up. A slot outlives its thread: at thread exit it is handed back
// with its count and the next new thread carries on counting in it, so the
// sum stays exact. Threads beyond the slots, and threads past their exit
// hook, count in one shared atomic instead.
struct alignas(64) BlockSlot {
  std::atomic<long> blocks{0};
  std::atomic<bool> taken{false};
};

extern __thread BlockSlot* t_block_slot __attribute__((tls_model("initial-exec")));

// This thread's slot, claimed on its first allocation; null when it has to
// use the shared counter.
[[gnu::cold, gnu::noinline]] BlockSlot* claim_block_slot();
[[gnu::cold, gnu::noinline]] void count_shared_block(long delta);

inline void count_block(long delta) {
  BlockSlot* slot = t_block_slot;
  if (__builtin_expect(slot == nullptr, 0)) slot = claim_block_slot();
  if (__builtin_expect(slot == nullptr, 0)) {
    count_shared_block(delta);
    return;
  }
  slot->blocks.store(slot->blocks.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
}

// Blocks in use: the debug-mode count plus every default-mode slot.
long block_count();

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
  count_block(-1);  // also for NULL: the drift is documented
  g_vek_memory_funcs.freeFunc(ptr);
}

// Debug-mode bodies (memory.debug.cpp).
void* debug_mode_malloc(size_t size, const char* file, int line);
void* debug_mode_realloc(void* ptr, size_t size, const char* file, int line);
void debug_mode_free(void* ptr, const char* file, int line);

}  // namespace vek::memory
