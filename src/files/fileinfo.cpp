// File information: one stat of a file, kept as numbers and as text.
#define _FILE_OFFSET_BITS 64  // 64-bit sizes also on 32-bit builds

#include <vekutil/fileinfo.h>

#include <cstddef>
#include <climits>
#include <cstring>
#include <sys/stat.h>

#include <vekutil/strutil.h>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/fileinfo.c";
constexpr size_t kTimeTextMax = 32;

static_assert(sizeof(long long) == 8, "file sizes are 64-bit");
static_assert(offsetof(_FILEINFO, size) % alignof(long long) == 0);

_FILEINFO* record(void* handle) { return static_cast<_FILEINFO*>(handle); }

// "MM/DD/YYYY HH:MM:SS" in local time, the hour padded with a space; empty
// when the time cannot be converted.
void format_time(char (&out)[FILEINFO_TEXT_SIZE], time_t when) {
  struct tm local;
  char text[FILEINFO_TEXT_SIZE];
  text[0] = '\0';
  if (localtime_r(&when, &local))
    format_r(text, sizeof text, "%02d/%02d/%4d %2d:%02d:%02d", local.tm_mon + 1, local.tm_mday,
             local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec);
  vek::copy_name(out, kTimeTextMax + 1, text);
}

void set_type(_FILEINFO* info, mode_t mode) {
  if (S_ISREG(mode)) {
    info->type = FILEINFO_TYPE_FILE;
    vek::copy_name(info->type2, sizeof info->type2, "Regular File");
  } else if (S_ISDIR(mode)) {
    info->type = FILEINFO_TYPE_DIRECTORY;
    vek::copy_name(info->type2, sizeof info->type2, "Directory");
  } else {
    vek::copy_name(info->type2, sizeof info->type2, "Unknown");
  }
}

// stat of name without one trailing separator ("dir/" names "dir"); the
// root "/" stays as it is. A name too long for the system fails either way.
bool stat_without_trailing_separator(const char* name, struct stat* st) {
  size_t len = std::strlen(name);
  if (len < 2 || (name[len - 1] != '/' && name[len - 1] != '\\')) return stat(name, st) == 0;
  char trimmed[PATH_MAX];
  if (len > sizeof trimmed) return false;
  std::memcpy(trimmed, name, len - 1);
  trimmed[len - 1] = '\0';
  return stat(trimmed, st) == 0;
}

// The accessors: a field of the record, or the null-handle answer.
unsigned int time_or_error(void* handle, time_t _FILEINFO::*field) {
  _FILEINFO* info = record(handle);
  return info ? (unsigned int)(info->*field) : (unsigned int)ERR_INVALID_HANDLE;
}

const char* text_or_null(void* handle, char (_FILEINFO::*field)[FILEINFO_TEXT_SIZE]) {
  _FILEINFO* info = record(handle);
  return info ? info->*field : nullptr;
}

int type_is(void* handle, int type) {
  _FILEINFO* info = record(handle);
  return info ? int(info->type == type) : ERR_INVALID_HANDLE;
}

}  // namespace

extern "C" {

int fileinfo_create(void** handle, const char* name) {
  if (!handle) return ERR_INVALID_PARAMETER;
  *handle = nullptr;
  _FILEINFO* info = vek::alloc_record<_FILEINFO>(kSource, __LINE__);
  if (!info) return ERR_NO_MEMORY;
  if (name) {
    int rc = fileinfo_query(info, name);
    if (rc != 0) {
      _vekFree(info, kSource, __LINE__);
      return rc;
    }
  }
  *handle = info;
  return 0;
}

int fileinfo_query(void* handle, const char* name) {
  _FILEINFO* info = record(handle);
  if (!info) return ERR_INVALID_HANDLE;
  if (!name) return ERR_INVALID_PARAMETER;
  struct stat st;
  if (!stat_without_trailing_separator(name, &st)) return ERR_FILE_NOT_FOUND;
  info->size = (long long)st.st_size;
  info->cTime = st.st_ctime;
  info->mTime = st.st_mtime;
  info->aTime = st.st_atime;
  format_time(info->cTime2, info->cTime);
  format_time(info->mTime2, info->mTime);
  format_time(info->aTime2, info->aTime);
  set_type(info, st.st_mode);
  return 0;
}

int fileinfo_delete(void* handle) {
  if (!handle) return ERR_INVALID_HANDLE;
  _vekFree(handle, kSource, __LINE__);
  return 0;
}

long long fileinfo_size(void* handle) {
  _FILEINFO* info = record(handle);
  return info ? info->size : ERR_INVALID_HANDLE;
}

unsigned int fileinfo_created_time(void* handle) { return time_or_error(handle, &_FILEINFO::cTime); }
unsigned int fileinfo_modified_time(void* handle) { return time_or_error(handle, &_FILEINFO::mTime); }
unsigned int fileinfo_accessed_time(void* handle) { return time_or_error(handle, &_FILEINFO::aTime); }
int fileinfo_isfile(void* handle) { return type_is(handle, FILEINFO_TYPE_FILE); }
int fileinfo_isdirectory(void* handle) { return type_is(handle, FILEINFO_TYPE_DIRECTORY); }
const char* fileinfo_created_time_str(void* handle) { return text_or_null(handle, &_FILEINFO::cTime2); }
const char* fileinfo_modified_time_str(void* handle) { return text_or_null(handle, &_FILEINFO::mTime2); }
const char* fileinfo_accessed_time_str(void* handle) { return text_or_null(handle, &_FILEINFO::aTime2); }
const char* fileinfo_type_str(void* handle) { return text_or_null(handle, &_FILEINFO::type2); }

}  // extern "C"
