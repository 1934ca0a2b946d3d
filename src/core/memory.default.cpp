// Default-mode allocation: straight to the allocator table, one block counter.
#include <pthread.h>

#include "core/memory.internal.hpp"

using namespace vek::memory;

namespace vek::memory {

namespace {

constexpr int kBlockSlots = 256;
BlockSlot g_block_slots[kBlockSlots];
std::atomic<int> g_block_slots_used{0};  // slots ever claimed: the ones to add up
std::atomic<long> g_shared_blocks{0};
pthread_key_t g_slot_key;
pthread_once_t g_slot_key_once = PTHREAD_ONCE_INIT;
bool g_slot_key_made = false;
__thread bool t_uses_shared_counter = false;

// Thread exit: the slot goes back with its count. Whatever the thread still
// allocates or frees after this (in later exit hooks) uses the shared counter.
void hand_back_slot(void* slot) {
  t_block_slot = nullptr;
  t_uses_shared_counter = true;
  static_cast<BlockSlot*>(slot)->taken.store(false, std::memory_order_release);
}

void make_slot_key() { g_slot_key_made = pthread_key_create(&g_slot_key, hand_back_slot) == 0; }

void note_slot_in_use(int index) {
  int used = g_block_slots_used.load(std::memory_order_relaxed);
  while (used <= index && !g_block_slots_used.compare_exchange_weak(used, index + 1)) {
  }
}

}  // namespace

__thread BlockSlot* t_block_slot = nullptr;

BlockSlot* claim_block_slot() {
  if (t_uses_shared_counter) return nullptr;
  t_uses_shared_counter = true;  // unless a slot is found below
  pthread_once(&g_slot_key_once, make_slot_key);
  if (!g_slot_key_made) return nullptr;
  for (int i = 0; i < kBlockSlots; ++i) {
    BlockSlot& slot = g_block_slots[i];
    bool expected = false;
    if (slot.taken.load(std::memory_order_relaxed) ||
        !slot.taken.compare_exchange_strong(expected, true, std::memory_order_acquire))
      continue;
    note_slot_in_use(i);
    if (pthread_setspecific(g_slot_key, &slot) != 0) {
      slot.taken.store(false, std::memory_order_release);
      return nullptr;
    }
    t_uses_shared_counter = false;
    t_block_slot = &slot;
    return &slot;
  }
  return nullptr;
}

void count_shared_block(long delta) { g_shared_blocks.fetch_add(delta, std::memory_order_relaxed); }

long block_count() {
  long total = (long)get(g_block) + g_shared_blocks.load(std::memory_order_relaxed);
  const int used = g_block_slots_used.load(std::memory_order_acquire);
  for (int i = 0; i < used; ++i) total += g_block_slots[i].blocks.load(std::memory_order_relaxed);
  return total;
}

void default_malloc_failed(size_t size, const char* file, int line) {
  report_oom(0, size, nullptr);
  log_vek_error("vekMalloc(size[%d]): at [%s:%d] running out of memory(handle[%d])\n", (int)size, file, line,
                (int)block_count());
}

}  // namespace vek::memory

void* vekDefaultMalloc(size_t size, const char* file, int line) { return default_malloc(size, file, line); }

void* vekDefaultCalloc(size_t num, size_t size, const char* file, int line) {
  void* p = g_vek_memory_funcs.callocFunc(num, size);
  if (!p) {
    report_oom(1, size, nullptr);
    log_vek_error("vekCalloc(size[%d]): at [%s:%d] running out of memory(handle[%d])\n", (int)size, file, line,
                  (int)block_count());
  }
  return p;
}

void* vekDefaultRealloc(void* ptr, size_t size, const char* file, int line) {
  void* p = g_vek_memory_funcs.reallocFunc(ptr, size);
  if (!p) {
    report_oom(1, size, ptr);
    log_vek_error("vekRealloc(size[%d]): at [%s:%d] running out of memory(handle[%d])\n", (int)size, file, line,
                  (int)block_count());
  }
  return p;
}

void vekDefaultFree(void* ptr, const char*, int) { default_free(ptr); }
