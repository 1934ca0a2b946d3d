// Internal helpers shared by every module of the library. Not installed.
#pragma once

#include <cstddef>
#include <cstring>
#include <pthread.h>

#include <vekutil/errors.h>
#include <vekutil/log.h>
#include <vekutil/memory.h>

namespace vek {

// A zero-filled block from the accounted allocator. The library never uses
// _vekCalloc itself: debug mode refuses zeroed allocation by design.
inline void* zalloc(size_t size, const char* file, int line) {
  void* p = _vekMalloc(size, file, line);
  if (p) std::memset(p, 0, size);
  return p;
}

// One zero-filled record of type T (a plain C record, no constructor run).
template <class T>
inline T* alloc_record(const char* file, int line) {
  return static_cast<T*>(zalloc(sizeof(T), file, line));
}

// Releases through the allocator and clears the caller's pointer.
template <class T>
inline void release(T*& p, const char* file, int line) {
  if (p) _vekFree(const_cast<void*>(static_cast<const void*>(p)), file, line);
  p = nullptr;
}

// Copies at most cap-1 bytes of src into dst and always terminates it.
inline void copy_name(char* dst, size_t cap, const char* src) {
  if (cap == 0) return;
  size_t n = 0;
  if (src) {
    while (n + 1 < cap && src[n]) ++n;
    std::memcpy(dst, src, n);
  }
  dst[n] = '\0';
}

}  // namespace vek
