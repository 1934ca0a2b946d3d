// String helpers: formatting into a per-thread or caller buffer, accounted
// copies and small in-place edits.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <vekutil/strutil.h>

#include "core/internal.hpp"

namespace {
constexpr const char* kSource = "src/strutil.c";
}

const char* format(const char* fmt, ...) {
  // One buffer per thread, so concurrent callers never see each other's text.
  static thread_local char buffer[VEK_FORMAT_BUFFER_SIZE];
  buffer[0] = '\0';
  if (!fmt) return buffer;
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buffer, sizeof buffer, fmt, ap);
  va_end(ap);
  return buffer;
}

char* format_r(char* buffer, int len, const char* fmt, ...) {
  if (!buffer || len < 1) return nullptr;
  buffer[0] = '\0';
  if (!fmt) return buffer;
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buffer, (size_t)len, fmt, ap);
  va_end(ap);
  return buffer;
}

char* clone_string(const char* str, int len) {
  if (!str) return nullptr;
  size_t n = std::strlen(str);
  if (len >= 0 && (size_t)len < n) n = (size_t)len;
  char* copy = static_cast<char*>(_vekMalloc(n + 1, kSource, __LINE__));
  if (!copy) return nullptr;
  std::memcpy(copy, str, n);
  copy[n] = '\0';
  return copy;
}

int replace_string(char* str, char find, char replace) {
  if (!str) return ERR_INVALID_PARAMETER;
  int count = 0;
  for (char* p = str; *p; ++p) {
    if (*p == find) {
      *p = replace;
      ++count;
    }
  }
  return count;
}

int str_starts_with(const char* str, const char* prefix) {
  if (!str || !prefix) return 0;
  return std::strncmp(str, prefix, std::strlen(prefix)) == 0;
}

int str_ends_with(const char* str, const char* suffix) {
  if (!str || !suffix) return 0;
  size_t n = std::strlen(str), m = std::strlen(suffix);
  return m <= n && std::memcmp(str + n - m, suffix, m) == 0;
}
