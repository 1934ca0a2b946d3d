// Default-mode allocation: straight to the allocator table, one block counter.
#include "core/memory.internal.hpp"

using namespace vek::memory;

namespace vek::memory {

void default_malloc_failed(size_t size, const char* file, int line) {
  report_oom(0, size, nullptr);
  log_vek_error("vekMalloc(size[%d]): at [%s:%d] running out of memory(handle[%d])\n", (int)size, file, line,
                (int)get(g_block));
}

}  // namespace vek::memory

void* vekDefaultMalloc(size_t size, const char* file, int line) { return default_malloc(size, file, line); }

void* vekDefaultCalloc(size_t num, size_t size, const char* file, int line) {
  void* p = g_vek_memory_funcs.callocFunc(num, size);
  if (!p) {
    report_oom(1, size, nullptr);
    log_vek_error("vekCalloc(size[%d]): at [%s:%d] running out of memory(handle[%d])\n", (int)size, file, line,
                  (int)get(g_block));
  }
  return p;
}

void* vekDefaultRealloc(void* ptr, size_t size, const char* file, int line) {
  void* p = g_vek_memory_funcs.reallocFunc(ptr, size);
  if (!p) {
    report_oom(1, size, ptr);
    log_vek_error("vekRealloc(size[%d]): at [%s:%d] running out of memory(handle[%d])\n", (int)size, file, line,
                  (int)get(g_block));
  }
  return p;
}

void vekDefaultFree(void* ptr, const char*, int) { default_free(ptr); }
