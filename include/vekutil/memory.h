/* Accounted memory: every byte the library holds comes through here. */
#ifndef VEKUTIL_MEMORY_H
#define VEKUTIL_MEMORY_H

#include <stddef.h>
#include <time.h>
#include <vekutil/defs.h>

VEK_BEGIN_DECLS

/* The replaceable allocator table; the field order is part of the interface. */
typedef struct _VEK_MEMORY_FUNCTIONS {
  void* (*mallocFunc)(size_t size);
  void* (*reallocFunc)(void* ptr, size_t size);
  void* (*callocFunc)(size_t num, size_t size);
  void (*freeFunc)(void* ptr);
  void* (*memsetFunc)(void* ptr, int value, size_t size);
  void* (*memcpyFunc)(void* dst, const void* src, size_t size);
  void* (*memmoveFunc)(void* dst, const void* src, size_t size);
  char* (*strdupFunc)(const char* str);
} VEK_MEMORY_FUNCTIONS;

/* Out-of-memory hook: kind 0 for malloc, 1 for calloc or realloc. */
typedef void (*vek_memory_err_func)(int kind, int size, void* ptr);

/* Debug-mode block header; the caller's memory begins right behind it. It is
 * aligned to 16 bytes so that the caller's memory keeps malloc's alignment:
 * 32 bytes on 32-bit targets, 64 on 64-bit ones (VEK_MEMORY_HDR_SIZE). */
typedef struct __attribute__((aligned(16))) memnod {
  unsigned int mh_tag;
  unsigned int mh_type;
  time_t mh_time;
  size_t mh_size;
  struct memnod* mh_next;
  struct memnod* mh_prev;
  const char* mh_file;
  unsigned int mh_line;
} VEK_MEMORY_HDR;

#define VEK_MEMORY_HDR_SIZE sizeof(VEK_MEMORY_HDR)
#define VEK_MEMORY_TAG_LIVE 0x5AA5u
#define VEK_MEMORY_TAG_FREED 0xFFFFA55Au

typedef void (*vek_memory_dump_func)(int index, time_t time, void* header, char* data, int size,
                                     const char* file, int line, int type, void* custom);

VEK_API extern VEK_MEMORY_FUNCTIONS g_vek_memory_funcs;
VEK_API extern vek_memory_err_func g_vek_memory_err_func;
VEK_API extern int g_vek_memory_debug;
VEK_API extern void* g_memory_mutex;

/* Set-up, once, before the first allocation. vekMemoryInitEx(1) chooses
 * debug mode (headers, live list, byte totals); there is no way back. The
 * table starts out with the standard functions; replace it, if at all,
 * before the first allocation. In debug mode blocks are always released with
 * the standard free, so a replaced table must hand out memory it accepts. */
VEK_API void vekMemoryInit(void);
VEK_API void vekMemoryInitEx(int opt);
VEK_API void vekMemorySetFunctions(VEK_MEMORY_FUNCTIONS funcs);
VEK_API VEK_MEMORY_FUNCTIONS vekMemoryGetFunctions(void);
/* Called before the log line when an allocation fails; NULL removes it. */
VEK_API void vekMemorySetErrCallback(vek_memory_err_func func);

/* Allocation with the caller's source position (a string literal: it is
 * kept, not copied). Failures return NULL and write one log line; a size of
 * 0 is refused in both modes. _vekCalloc always returns NULL in debug mode.
 * _vekRealloc never releases ptr when it fails. In debug mode a pointer that
 * was not made here, or was already released, is logged and left alone. */
VEK_API void* _vekMalloc(size_t size, const char* file, int line);
VEK_API void* _vekCalloc(size_t num, size_t size, const char* file, int line);
VEK_API void* _vekRealloc(void* ptr, size_t size, const char* file, int line);
VEK_API void _vekFree(void* ptr, const char* file, int line);
VEK_API void vekFree(void* ptr);

/* The default-mode bodies, callable directly. */
VEK_API void* vekDefaultMalloc(size_t size, const char* file, int line);
VEK_API void* vekDefaultCalloc(size_t num, size_t size, const char* file, int line);
VEK_API void* vekDefaultRealloc(void* ptr, size_t size, const char* file, int line);
VEK_API void vekDefaultFree(void* ptr, const char* file, int line);

/* Slots 5 to 8 of the table, without accounting. A vekStrdup copy is a plain
 * block of the table's allocator: in debug mode do not pass it to _vekFree. */
VEK_API void* vekMemset(void* ptr, int value, size_t size);
VEK_API void* vekMemcpy(void* dst, const void* src, size_t size);
VEK_API void* vekMemmove(void* dst, const void* src, size_t size);
VEK_API char* vekStrdup(const char* str);

/* Bytes in use incl. headers and their peak (debug mode), blocks in use (both
 * modes) and the largest single request (debug mode). Read without locking. */
VEK_API long long vekMemoryUsed(void);
VEK_API long long vekMemoryUsedMax(void);
VEK_API long long vekMemoryBlockUsed(void);
VEK_API long long vekMemoryBlockUsedMax(void);

/* Writes the report of live blocks (newest first) to file, or to
 * ".memorylist" in the current directory: 0, or ERR_SYSTEM. option is
 * unused. */
VEK_API int vekMemoryDump(const char* file, int option);
/* Calls callback for every live block, newest first, with the list locked:
 * the callback must not allocate or release. */
VEK_API void vekMemoryDumpForeach(vek_memory_dump_func callback, void* custom);
/* A copy of the data of the live block whose header is at address (as the
 * report prints it) in *buf (release with _vekFree), its size in *len.
 * ERR_INVALID_PARAMETER, ERR_CORRUPTED (not a live header) or ERR_NO_MEMORY. */
VEK_API int vekMemoryShow(long address, unsigned char** buf, int* len);

/* Live-list links; the caller holds g_memory_mutex. */
VEK_API void _vek_memory_list_add(VEK_MEMORY_HDR* header);
VEK_API void _vek_memory_list_delete(VEK_MEMORY_HDR* header);

/* Convenience forms that pass the caller's source position. */
#define vekMalloc(size) _vekMalloc((size), __FILE__, __LINE__)
#define vekCalloc(num, size) _vekCalloc((num), (size), __FILE__, __LINE__)
#define vekRealloc(ptr, size) _vekRealloc((ptr), (size), __FILE__, __LINE__)

VEK_END_DECLS

#endif
