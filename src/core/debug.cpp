// Resource limits as sentences and console-traced allocation.
#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <vekutil/debug.h>
#include <vekutil/rlimit.h>
#include <vekutil/strutil.h>

#include "core/internal.hpp"

namespace {

int describe_limits(int resource, const char* sentence, char** msg) {
  struct rlimit limit;
  if (getrlimit(resource, &limit) != 0) return errno;
  if (!msg) return 0;
  *msg = clone_string(format(sentence, (int)limit.rlim_cur, (int)limit.rlim_max), -1);
  return *msg ? 0 : ERR_NO_MEMORY;
}

}  // namespace

int debug_enable_core_files(void) { return rlimit_enable_core_files(); }

int debug_get_max_threads(char** msg) {
  return describe_limits(RLIMIT_NPROC, "Max Threads -> (Soft:%d) (Hard:%d)", msg);
}

int debug_get_max_open_files(char** msg) {
  return describe_limits(RLIMIT_NOFILE, "Max Open Files -> (Soft:%d) (Hard:%d)", msg);
}

int debug_get_core_file_limits(char** msg) {
  return describe_limits(RLIMIT_CORE, "Core Limits -> (Soft:%d) (Hard:%d)", msg);
}

void* debug_malloc(int i, const char* s, const char* file, int line) {
  void* p = std::malloc(i > 0 ? (size_t)i : 0);
  std::printf("=M= %p - %d - %s (%s:%d)\n", p, i, s ? s : "", file ? file : "", line);
  return p;
}

void debug_free(void* a, const char* s, const char* file, int line) {
  std::printf("=F= %p - %s (%s:%d)\n", a, s ? s : "", file ? file : "", line);
  std::free(a);
}
