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

inline void count_block(long delta) {
  g_block.store(g_block.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
}

// Calls the out-of-memory hook, if one is set.
inline void report_oom(int kind, size_t size, void* ptr) {
  if (g_vek_memory_err_func) g_vek_memory_err_func(kind, (int)size, ptr);
}

}  // namespace vek::memory
