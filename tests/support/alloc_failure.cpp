#include "alloc_failure.hpp"

#include <cstdlib>
#include <cstring>

namespace vektest {
namespace {

// Allocations counted since fail_nth(); 0 in fail_at means disarmed.
std::atomic<long> g_count{0};
std::atomic<long> g_fail_at{0};
std::atomic<bool> g_failed{false};

bool should_fail() {
  long at = g_fail_at.load(std::memory_order_relaxed);
  if (at == 0) return false;
  if (g_count.fetch_add(1, std::memory_order_relaxed) + 1 != at) return false;
  g_failed.store(true, std::memory_order_relaxed);
  return true;
}

void* failing_malloc(size_t size) { return should_fail() ? nullptr : std::malloc(size); }
void* failing_realloc(void* ptr, size_t size) { return should_fail() ? nullptr : std::realloc(ptr, size); }
void* failing_calloc(size_t num, size_t size) { return should_fail() ? nullptr : std::calloc(num, size); }
char* failing_strdup(const char* text) { return should_fail() ? nullptr : strdup(text); }

}  // namespace

FailingAllocator::FailingAllocator() : saved_(vekMemoryGetFunctions()) {
  VEK_MEMORY_FUNCTIONS funcs = saved_;
  funcs.mallocFunc = failing_malloc;
  funcs.reallocFunc = failing_realloc;
  funcs.callocFunc = failing_calloc;
  funcs.strdupFunc = failing_strdup;
  vekMemorySetFunctions(funcs);
}

FailingAllocator::~FailingAllocator() {
  disarm();
  vekMemorySetFunctions(saved_);
}

void FailingAllocator::fail_nth(long n) {
  g_fail_at.store(0, std::memory_order_relaxed);
  g_count.store(0, std::memory_order_relaxed);
  g_failed.store(false, std::memory_order_relaxed);
  g_fail_at.store(n, std::memory_order_relaxed);
}

bool FailingAllocator::failure_happened() const { return g_failed.load(std::memory_order_relaxed); }

}  // namespace vektest
