// Allocator entry points, the table in force and the accounting getters.
// Debug-mode bodies live in memory.debug.cpp, default-mode ones in
// memory.default.cpp.
#include <cstdlib>
#include <cstring>

#include "core/memory.internal.hpp"

VEK_MEMORY_FUNCTIONS g_vek_memory_funcs = {std::malloc, std::realloc, std::calloc, std::free,
                                           std::memset, std::memcpy,  std::memmove, ::strdup};
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
  g_vek_memory_funcs = {std::malloc, std::realloc, std::calloc, std::free,
                        std::memset, std::memcpy,  std::memmove, ::strdup};
}

void vekMemoryInitEx(int opt) {
  if (opt & 1) g_vek_memory_debug = 1;
  vekMemoryInit();
}

void vekMemorySetFunctions(VEK_MEMORY_FUNCTIONS funcs) { g_vek_memory_funcs = funcs; }
VEK_MEMORY_FUNCTIONS vekMemoryGetFunctions(void) { return g_vek_memory_funcs; }
void vekMemorySetErrCallback(vek_memory_err_func func) { g_vek_memory_err_func = func; }

void* _vekMalloc(size_t size, const char* file, int line) { return vekDefaultMalloc(size, file, line); }
void* _vekCalloc(size_t num, size_t size, const char* file, int line) {
  return vekDefaultCalloc(num, size, file, line);
}
void* _vekRealloc(void* ptr, size_t size, const char* file, int line) {
  return vekDefaultRealloc(ptr, size, file, line);
}
void _vekFree(void* ptr, const char* file, int line) { vekDefaultFree(ptr, file, line); }
void vekFree(void* ptr) { _vekFree(ptr, VEK_BACKWARD_FILE, 0); }

void* vekMemset(void* ptr, int value, size_t size) { return g_vek_memory_funcs.memsetFunc(ptr, value, size); }
void* vekMemcpy(void* dst, const void* src, size_t size) { return g_vek_memory_funcs.memcpyFunc(dst, src, size); }
void* vekMemmove(void* dst, const void* src, size_t size) { return g_vek_memory_funcs.memmoveFunc(dst, src, size); }
char* vekStrdup(const char* str) { return g_vek_memory_funcs.strdupFunc(str); }

long long vekMemoryUsed(void) { return (long long)g_size.load(std::memory_order_relaxed); }
long long vekMemoryUsedMax(void) { return (long long)g_size_max.load(std::memory_order_relaxed); }
long long vekMemoryBlockUsed(void) { return (long long)g_block.load(std::memory_order_relaxed); }
long long vekMemoryBlockUsedMax(void) { return (long long)g_block_max.load(std::memory_order_relaxed); }
