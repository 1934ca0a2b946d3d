// Allocator entry points, the table in force and the accounting getters.
// Debug-mode bodies live in memory.debug.cpp, default-mode ones in
// memory.default.cpp.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <vekutil/mutex.h>

#include "core/memory.internal.hpp"

namespace {

constexpr const char* kSource = "src/memory.c";

// The standard functions: the table starts out with them, so an allocation
// made before vekMemoryInit works as well.
constexpr VEK_MEMORY_FUNCTIONS kStandardFunctions = {std::malloc, std::realloc, std::calloc, std::free,
                                                     std::memset, std::memcpy,  std::memmove, ::strdup};

}  // namespace

VEK_MEMORY_FUNCTIONS g_vek_memory_funcs = kStandardFunctions;
vek_memory_err_func g_vek_memory_err_func = nullptr;
int g_vek_memory_debug = 0;
void* g_memory_mutex = nullptr;

namespace vek::memory {
std::atomic<unsigned long> g_block{0};
std::atomic<unsigned long> g_block_max{0};
std::atomic<unsigned long> g_size{0};
std::atomic<unsigned long> g_size_max{0};
}  // namespace vek::memory

using namespace vek::memory;

void vekMemoryInit(void) {
  g_vek_memory_funcs = kStandardFunctions;
  // The mutex module allocates its record through this allocator and
  // registers the mutex with the instrumentation registry, which allocates
  // too. Build the mutex in a local and publish it only when it is complete:
  // the allocations made meanwhile see the previous handle (none on the
  // first call) and run unlocked, as everything before initialisation does,
  // instead of locking a half-built mutex.
  void* mutex = nullptr;
  _mutex_create_ex(&mutex, nullptr, 0, kSource, __LINE__);
  g_memory_mutex = mutex;
}

void vekMemoryInitEx(int opt) {
  if (opt & 1) g_vek_memory_debug = 1;
  vekMemoryInit();
}

void vekMemorySetFunctions(VEK_MEMORY_FUNCTIONS funcs) { g_vek_memory_funcs = funcs; }
VEK_MEMORY_FUNCTIONS vekMemoryGetFunctions(void) { return g_vek_memory_funcs; }
void vekMemorySetErrCallback(vek_memory_err_func func) { g_vek_memory_err_func = func; }

// A zero size is refused in both modes, before the mode is looked at.
void* _vekMalloc(size_t size, const char* file, int line) {
  if (__builtin_expect(size == 0, 0)) {
    log_vek_error("vekMalloc(size[%d]): invalid size! %s(%u)\n", 0, file, (unsigned)line);
    return nullptr;
  }
  if (__builtin_expect(g_vek_memory_debug != 0, 0)) return debug_mode_malloc(size, file, line);
  return default_malloc(size, file, line);
}

// Debug mode does not offer zeroed allocation: the answer is always NULL.
void* _vekCalloc(size_t num, size_t size, const char* file, int line) {
  if (g_vek_memory_debug) return nullptr;
  return vekDefaultCalloc(num, size, file, line);
}

void* _vekRealloc(void* ptr, size_t size, const char* file, int line) {
  if (size == 0) {
    log_vek_error("vekRealloc(size[%d]): invalid size! %s(%u)\n", 0, file, (unsigned)line);
    return nullptr;
  }
  if (!g_vek_memory_debug) return vekDefaultRealloc(ptr, size, file, line);
  if (!ptr) return _vekMalloc(size, file, line);
  return debug_mode_realloc(ptr, size, file, line);
}

void _vekFree(void* ptr, const char* file, int line) {
  if (__builtin_expect(g_vek_memory_debug != 0, 0)) {
    debug_mode_free(ptr, file, line);
    return;
  }
  default_free(ptr);
}

void vekFree(void* ptr) { _vekFree(ptr, VEK_BACKWARD_FILE, 0); }

void* vekMemset(void* ptr, int value, size_t size) { return g_vek_memory_funcs.memsetFunc(ptr, value, size); }
void* vekMemcpy(void* dst, const void* src, size_t size) { return g_vek_memory_funcs.memcpyFunc(dst, src, size); }
void* vekMemmove(void* dst, const void* src, size_t size) { return g_vek_memory_funcs.memmoveFunc(dst, src, size); }
char* vekStrdup(const char* str) { return g_vek_memory_funcs.strdupFunc(str); }

long long vekMemoryUsed(void) { return (long long)get(g_size); }
long long vekMemoryUsedMax(void) { return (long long)get(g_size_max); }
long long vekMemoryBlockUsed(void) { return (long long)block_count(); }
long long vekMemoryBlockUsedMax(void) { return (long long)get(g_block_max); }
