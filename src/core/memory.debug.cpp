// Debug-mode allocation: every block carries a header, all live blocks are
// chained in one list under g_memory_mutex, and the list can be dumped,
// walked and inspected.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <vekutil/mutex.h>

#include "core/hexdump.internal.hpp"
#include "core/memory.internal.hpp"
#include "core/scoped_lock.hpp"

// Head of the live list, newest block first. Changed only under
// g_memory_mutex (or before it exists, while the process is single-threaded).
VEK_MEMORY_HDR* memlist = nullptr;

namespace {

constexpr const char* kSource = "src/memory.debug.c";
constexpr size_t kHeader = VEK_MEMORY_HDR_SIZE;
constexpr size_t kDumpedBytes = 32;  // data bytes shown per block in the report

static_assert(VEK_MEMORY_HDR_SIZE % 16 == 0, "the caller's memory must keep malloc's alignment");

VEK_MEMORY_HDR* header_of(void* data) {
  return reinterpret_cast<VEK_MEMORY_HDR*>(static_cast<char*>(data) - kHeader);
}
char* data_of(VEK_MEMORY_HDR* header) { return reinterpret_cast<char*>(header) + kHeader; }

// The tag is written outside the lock by the releasing thread while a dump
// may read it under the lock: relaxed atomic accesses keep that race-free at
// the cost of a plain load or store.
bool is_live(const VEK_MEMORY_HDR* header) {
  return __atomic_load_n(&header->mh_tag, __ATOMIC_RELAXED) == VEK_MEMORY_TAG_LIVE;
}
void set_tag(VEK_MEMORY_HDR* header, unsigned tag) { __atomic_store_n(&header->mh_tag, tag, __ATOMIC_RELAXED); }

void fill_header(VEK_MEMORY_HDR* header, unsigned type, size_t size, const char* file, int line) {
  set_tag(header, VEK_MEMORY_TAG_LIVE);
  header->mh_type = type;
  header->mh_time = time(nullptr);
  header->mh_size = size;
  header->mh_next = nullptr;
  header->mh_prev = nullptr;
  header->mh_file = file;
  header->mh_line = (unsigned)line;
}

// A request whose size plus header does not fit in size_t cannot be served;
// it takes the out-of-memory path instead of wrapping around.
bool too_big(size_t size) { return size > SIZE_MAX - kHeader; }

}  // namespace

void _vek_memory_list_add(VEK_MEMORY_HDR* header) {
  if (!header) return;
  header->mh_prev = nullptr;
  header->mh_next = memlist;
  if (memlist) memlist->mh_prev = header;
  memlist = header;
}

void _vek_memory_list_delete(VEK_MEMORY_HDR* header) {
  if (!header) return;
  if (header->mh_prev)
    header->mh_prev->mh_next = header->mh_next;
  else if (memlist == header)
    memlist = header->mh_next;
  if (header->mh_next) header->mh_next->mh_prev = header->mh_prev;
  header->mh_next = header->mh_prev = nullptr;
}

namespace vek::memory {
namespace {

// Both run under the list lock.
void link_block(VEK_MEMORY_HDR* header) {
  add(g_size, (long)(header->mh_size + kHeader));
  add(g_block, +1);
  _vek_memory_list_add(header);
}

void unlink_block(VEK_MEMORY_HDR* header) {
  add(g_size, -(long)(header->mh_size + kHeader));
  add(g_block, -1);
  _vek_memory_list_delete(header);
}

}  // namespace

void* debug_mode_malloc(size_t size, const char* file, int line) {
  auto* header = too_big(size) ? nullptr : static_cast<VEK_MEMORY_HDR*>(g_vek_memory_funcs.mallocFunc(size + kHeader));
  if (!header) {
    report_oom(0, size, nullptr);
    log_vek_error("vekMalloc(size[%d]): running out of memory(memory[%d(%d)] handle[%d] maxblock[%d])  %s(%u)\n",
                  (int)size, (int)get(g_size), (int)get(g_size_max), (int)block_count(), (int)get(g_block_max), file,
                  (unsigned)line);
    return nullptr;
  }
  fill_header(header, 0, size, file, line);
  {
    vek::ScopedLock lock(g_memory_mutex, kSource, __LINE__);
    link_block(header);
    raise_to(g_size_max, get(g_size));
    raise_to(g_block_max, size);
  }
  return data_of(header);
}

void* debug_mode_realloc(void* ptr, size_t size, const char* file, int line) {
  // All bits set is what a pointer read out of released memory looks like;
  // there is no header in front of it to read.
  if ((uintptr_t)ptr == UINTPTR_MAX || !is_live(header_of(ptr))) {
    log_vek_error("vekRealloc(size[%d]): invalid address!\n", (int)size);
    return nullptr;
  }
  VEK_MEMORY_HDR* old_header = header_of(ptr);
  set_tag(old_header, VEK_MEMORY_TAG_FREED);
  {
    vek::ScopedLock lock(g_memory_mutex, kSource, __LINE__);
    unlink_block(old_header);
    raise_to(g_size_max, get(g_size));
  }
  auto* header =
      too_big(size) ? nullptr : static_cast<VEK_MEMORY_HDR*>(g_vek_memory_funcs.reallocFunc(old_header, size + kHeader));
  if (!header) {
    // realloc left the old block as it was: it stays valid, linked and
    // counted, so the caller can still use and release it.
    set_tag(old_header, VEK_MEMORY_TAG_LIVE);
    {
      vek::ScopedLock lock(g_memory_mutex, kSource, __LINE__);
      link_block(old_header);
    }
    log_vek_error("vekMalloc(size[%d]): running out of memory(memory[%d(%d)] handle[%d] maxblock[%d])\n", (int)size,
                  (int)get(g_size), (int)get(g_size_max), (int)block_count(), (int)get(g_block_max));
    return nullptr;
  }
  fill_header(header, 1, size, file, line);
  {
    vek::ScopedLock lock(g_memory_mutex, kSource, __LINE__);
    link_block(header);  // the peaks are left alone on this path
  }
  return data_of(header);
}

void debug_mode_free(void* ptr, const char* file, int line) {
  if (!ptr) return;
  if ((uintptr_t)ptr == UINTPTR_MAX) {
    log_vek_error("trying to free pointer from freed area\n");
    return;
  }
  VEK_MEMORY_HDR* header = header_of(ptr);
  if (!is_live(header)) {
    // Never made here, already released, or a damaged header: leave it be.
    log_vek_error("vekFree(): invalid address! %s(%u)", file, (unsigned)line);
    return;
  }
  set_tag(header, VEK_MEMORY_TAG_FREED);
  std::memset(ptr, 0xFF, header->mh_size);  // the standard memset, not the table's
  {
    vek::ScopedLock lock(g_memory_mutex, kSource, __LINE__);
    unlink_block(header);
  }
  // Always the standard free: a replaced table must hand out memory it accepts.
  std::free(header);
}

}  // namespace vek::memory

namespace {

void write_to_file(const char* text, size_t len, void* ctx) { std::fwrite(text, 1, len, static_cast<FILE*>(ctx)); }

// The first bytes of a block in double quotes, in hex rows.
void write_quoted_data(FILE* out, const VEK_MEMORY_HDR* header) {
  size_t n = header->mh_size < kDumpedBytes ? header->mh_size : kDumpedBytes;
  auto* data = reinterpret_cast<const unsigned char*>(header) + kHeader;
  std::fputc('"', out);
  if (vek::hex_rows(data, n, true, write_to_file, out)) std::fputc('\n', out);
  std::fputc('"', out);
}

// One report line; false for a block of unknown type.
bool write_block_line(FILE* out, unsigned index, const VEK_MEMORY_HDR* header) {
  std::fprintf(out, "%-5u, %p, %10lu, %6lu, ", index, (const void*)header, (unsigned long)header->mh_time,
               (unsigned long)header->mh_size);
  if (header->mh_type > 1) {
    std::fputs("Unknown memory block, may be corrupted", out);
    return false;
  }
  std::fputs(header->mh_type == 0 ? "m, " : "r, ", out);
  if (header->mh_file) std::fprintf(out, "%s(%u)", header->mh_file, header->mh_line);
  std::fputc(',', out);
  write_quoted_data(out, header);
  if (!is_live(header)) std::fputs("  INVALID", out);
  std::fputc('\n', out);
  return true;
}

}  // namespace

using namespace vek::memory;

int vekMemoryDump(const char* file, int /*option*/) {
  FILE* out = std::fopen(file ? file : ".memorylist", "w");
  if (!out) return ERR_SYSTEM;
  std::fprintf(out, "MEMORY ALLOCATED, %lu\n", get(g_size));
  std::fprintf(out, "MAX ALLOCATED, %lu\n", get(g_size_max));
  std::fprintf(out, "BIGGEST BLOCK ALLOCATED, %lu\n\n", get(g_block_max));
  std::fputs("BLOCK, ADDRESS, TIME, SIZE, TYPE, LOCATION, DUMP \n", out);
  int result = 0;
  {
    vek::ScopedLock lock(g_memory_mutex, kSource, __LINE__);
    unsigned index = 0;
    for (VEK_MEMORY_HDR* h = memlist; h; h = h->mh_next, ++index) {
      if (!write_block_line(out, index, h)) {
        result = ERR_SYSTEM;
        break;
      }
    }
  }
  std::fclose(out);
  return result;
}

void vekMemoryDumpForeach(vek_memory_dump_func callback, void* custom) {
  if (!callback) return;
  vek::ScopedLock lock(g_memory_mutex, kSource, __LINE__);
  int index = 0;
  for (VEK_MEMORY_HDR* h = memlist; h; h = h->mh_next, ++index)
    callback(index, h->mh_time, h, data_of(h), (int)h->mh_size, h->mh_file, (int)h->mh_line, (int)h->mh_type,
             custom);
}

// The address is looked up in the live list rather than read directly, so a
// stale or made-up address is answered with ERR_CORRUPTED instead of a fault.
int vekMemoryShow(long address, unsigned char** buf, int* len) {
  if (!buf || !len) return ERR_INVALID_PARAMETER;
  vek::ScopedLock lock(g_memory_mutex, kSource, __LINE__);  // recursive: the copy below may allocate under it
  VEK_MEMORY_HDR* header = memlist;
  while (header && (long)(intptr_t)header != address) header = header->mh_next;
  if (!header || !is_live(header)) return ERR_CORRUPTED;
  auto* copy = static_cast<unsigned char*>(_vekMalloc(header->mh_size, kSource, __LINE__));
  if (!copy) return ERR_NO_MEMORY;
  std::memcpy(copy, data_of(header), header->mh_size);
  *len = (int)header->mh_size;
  *buf = copy;
  return 0;
}
