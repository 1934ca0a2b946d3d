// Files: byte stream reader, name checks, path helpers and the basic
// delete / copy / move / chmod / roll operations.
#define _FILE_OFFSET_BITS 64  // 64-bit sizes and offsets also on 32-bit builds

#include <vekutil/file.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <vekutil/strutil.h>

#include "core/internal.hpp"

namespace {

constexpr const char* kSource = "src/file.c";
constexpr int kStreamBufferSize = 4096;
constexpr int kCopyBlockSize = 1024;
constexpr int kPathBufferSize = 1024;
constexpr int kRollNameSize = 147;

struct _FILESTREAM_OBJECT {
  FILE* fp;
  char buffer[kStreamBufferSize];
  int len;
  int index;
};

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

// ---- Lexical clean-up of an absolute path, done in place: every step only
// shortens the text.

void erase_at(char* at, size_t count) { std::memmove(at, at + count, std::strlen(at + count) + 1); }

void collapse_slash_runs(char* text) {
  char* out = text;
  for (const char* in = text; *in; ++in) {
    if (*in == '/' && out > text && out[-1] == '/') continue;
    *out++ = *in;
  }
  *out = '\0';
}

void drop_dot_segments(char* text) {  // "/./" -> "/"
  for (char* at; (at = std::strstr(text, "/./")) != nullptr;) erase_at(at, 2);
}

// "/.." removes the component before it: the text before the first "/.." is
// cut at its last '/', then what follows the "/.." is appended. "/a/.."
// therefore becomes "" rather than "/".
void drop_parent_segments(char* text) {
  for (char* at; (at = std::strstr(text, "/..")) != nullptr;) {
    char* cut = text;
    for (char* p = text; p < at; ++p)
      if (*p == '/') cut = p;
    erase_at(cut, (size_t)(at + 3 - cut));
  }
}

// Every remaining "/." loses both characters: a trailing "/." goes, and so
// do the slash and dot before a name that starts with a dot.
void drop_slash_dots(char* text) {
  for (char* at; (at = std::strstr(text, "/.")) != nullptr;) erase_at(at, 2);
}

bool same_file(FILE* open_file, const char* name) {
  struct stat a, b;
  return fstat(fileno(open_file), &a) == 0 && stat(name, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The roll's numbered name; false when it does not fit the roll's buffer
// (a cut name could collide with other numbered names or with the file).
bool roll_name(char (&out)[kRollNameSize], const char* filename, int number) {
  int needed = std::snprintf(out, sizeof out, "%s.%d", filename, number);
  return needed >= 0 && needed < kRollNameSize;
}

}  // namespace

extern "C" {

// ---- File stream

int filestream_open(void** handle, const char* filename) {
  if (!handle || !filename) return ERR_INVALID_PARAMETER;
  FILE* fp = std::fopen(filename, "rb");
  if (!fp) return ERR_FILE_NOT_FOUND;
  auto* stream = vek::alloc_record<_FILESTREAM_OBJECT>(kSource, __LINE__);
  if (!stream) {
    std::fclose(fp);
    return ERR_NO_MEMORY;
  }
  stream->fp = fp;
  *handle = stream;
  return 0;
}

int filestream_read(void* handle, char* ch) {
  auto* stream = static_cast<_FILESTREAM_OBJECT*>(handle);
  if (!stream || !ch) return ERR_INVALID_PARAMETER;
  if (stream->index == stream->len) {
    size_t count = std::fread(stream->buffer, 1, sizeof stream->buffer, stream->fp);
    stream->len = (int)count;
    stream->index = 0;
    if (count < 1) return -1;  // end of stream, on this call and every later one
  }
  *ch = stream->buffer[stream->index++];
  return 0;
}

int filestream_close(void* handle) {
  auto* stream = static_cast<_FILESTREAM_OBJECT*>(handle);
  if (!stream) return ERR_INVALID_PARAMETER;
  std::fclose(stream->fp);
  _vekFree(stream, kSource, __LINE__);
  return 0;
}

// ---- Names and paths

char* file_path_normalize(char* path) {
  if (path) replace_string(path, '\\', '/');
  return path;
}

int file_is_valid_name(const char* name, int allow_transversal) {
  if (!name) return ERR_INVALID_PARAMETER;
  if (std::strpbrk(name, ":?*<>|")) return ERR_FILE_INVALID_NAME;
  if (!allow_transversal && std::strstr(name, "..")) return ERR_FILE_TRAVERSAL;
  return 0;
}

char* file_absolute_path(const char* path) {
  if (!path) return nullptr;
  char* result;
  if (path[0] == '/') {
    result = clone_string(path, -1);
  } else {
    char cwd[kPathBufferSize];
    if (!getcwd(cwd, sizeof cwd)) cwd[0] = '\0';
    char joined[kPathBufferSize];
    result = clone_string(format_r(joined, sizeof joined, "%s%c%s", cwd, '/', path), -1);
  }
  if (!result) return nullptr;
  file_path_normalize(result);
  collapse_slash_runs(result);
  drop_dot_segments(result);
  drop_parent_segments(result);
  drop_slash_dots(result);
  return result;
}

// ---- Operations

int file_delete(const char* src) {
  if (!src) return ERR_INVALID_PARAMETER;
  if (std::remove(src) == 0) return 0;
  // remove's errno says why; rmdir on a plain file would only add ENOTDIR.
  int err = errno;
  if (rmdir(src) == 0) return 0;
  return file_error_code(err, false);
}

int file_copy(const char* src, const char* dst) {
  if (!src || !dst) return ERR_INVALID_PARAMETER;
  FILE* in = std::fopen(src, "rb");
  if (!in) return ERR_FILE_NOT_FOUND;
  if (same_file(in, dst)) {  // opening it for writing would empty the source
    std::fclose(in);
    return ERR_FILE_CREATE;
  }
  FILE* out = std::fopen(dst, "wb");
  if (!out) {
    std::fclose(in);
    return ERR_FILE_CREATE;
  }
  char block[kCopyBlockSize];
  int result = 0;
  for (size_t count; (count = std::fread(block, 1, sizeof block, in)) > 0;) {
    if (std::fwrite(block, 1, count, out) < count) {
      result = ERR_SYSTEM;
      break;
    }
  }
  // A read error (a directory, an I/O fault) must not pass for a short file,
  // nor a write error that only shows when the last block is flushed.
  if (std::ferror(in)) result = ERR_SYSTEM;
  if (std::fclose(out) != 0) result = ERR_SYSTEM;
  std::fclose(in);
  return result;
}

int file_move(const char* src, const char* dst) {
  if (!src || !dst) return ERR_INVALID_PARAMETER;
  if (std::rename(src, dst) != 0) return file_error_code(errno, true);
  utimes(dst, nullptr);  // a moved file counts as touched now
  return 0;
}

void file_roll(const char* filename, int max) {
  if (!filename || max == 0) return;
  char newer[kRollNameSize];
  char older[kRollNameSize];
  // The highest number has the most digits: when its name fits, all fit.
  if (!roll_name(older, filename, max)) return;
  file_delete(older);
  if (max < 0) return;
  for (int i = max; i >= 2; --i) {
    roll_name(newer, filename, i - 1);
    roll_name(older, filename, i);
    file_move(newer, older);
  }
  roll_name(older, filename, 1);
  file_move(filename, older);
}

int file_chmod(const char* src, int mode) {
  if (!src) {
    errno = EINVAL;
    return -1;
  }
  mode_t bits = 0;
  if (mode & FILE_MODE_READ) bits |= 0444;
  if (mode & FILE_MODE_WRITE) bits |= 0222;
  if (mode & FILE_MODE_EXECUTE) bits |= 0111;
  return chmod(src, bits);
}

}  // extern "C"
