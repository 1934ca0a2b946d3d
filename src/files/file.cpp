// Files: byte stream reader, name checks, path helpers and the basic
// delete / copy / move / chmod / roll operations.
#define _FILE_OFFSET_BITS 64  // 64-bit sizes and offsets also on 32-bit builds

#include <vekutil/file.h>

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "core/internal.hpp"

namespace {

// Translates errno after a failed delete or rename into a result code. Only
// a rename reports an existing target; for a delete it is a system error.
int file_error_code(int err, bool rename_target_may_exist) {
  switch (err) {
    case ENOENT: return ERR_FILE_NOT_FOUND;
    case EACCES: return ERR_FILE_ACCESS_DENIED;
    case EEXIST: return rename_target_may_exist ? ERR_FILE_EXISTS : ERR_SYSTEM;
    default: return ERR_SYSTEM;
  }
}

}  // namespace

extern "C" {

int file_delete(const char* src) {
  if (!src) return ERR_INVALID_PARAMETER;
  if (remove(src) == 0) return 0;
  // remove's errno says why; rmdir on a plain file would only add ENOTDIR.
  int err = errno;
  if (rmdir(src) == 0) return 0;
  return file_error_code(err, false);
}

int file_move(const char* src, const char* dst) {
  if (!src || !dst) return ERR_INVALID_PARAMETER;
  if (rename(src, dst) != 0) return file_error_code(errno, true);
  utimes(dst, nullptr);  // a moved file counts as touched now
  return 0;
}

}  // extern "C"
