// Resource limits of the process as numbers.
#include <sys/resource.h>

#include <cerrno>

#include <vekutil/rlimit.h>

#include "core/internal.hpp"

namespace {

int get_limits(int resource, int* soft_limit, int* hard_limit) {
  if (!soft_limit || !hard_limit) return ERR_INVALID_PARAMETER;
  struct rlimit limit;
  if (getrlimit(resource, &limit) != 0) return errno;
  // Cut to int on purpose: unlimited (all bits set) reads as -1.
  *soft_limit = (int)limit.rlim_cur;
  *hard_limit = (int)limit.rlim_max;
  return 0;
}

}  // namespace

int rlimit_enable_core_files(void) {
  struct rlimit limit;
  limit.rlim_cur = RLIM_INFINITY;
  limit.rlim_max = RLIM_INFINITY;
  return setrlimit(RLIMIT_CORE, &limit) != 0 ? errno : 0;
}

int rlimit_get_max_threads(int* soft_limit, int* hard_limit) {
  return get_limits(RLIMIT_NPROC, soft_limit, hard_limit);
}

int rlimit_get_max_open_files(int* soft_limit, int* hard_limit) {
  return get_limits(RLIMIT_NOFILE, soft_limit, hard_limit);
}

int rlimit_get_core_file_limits(int* soft_limit, int* hard_limit) {
  return get_limits(RLIMIT_CORE, soft_limit, hard_limit);
}
