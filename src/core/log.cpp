// The process log.
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "core/internal.hpp"

FILE* g_log_file = nullptr;
vek_log_err_func g_vek_log_err_func = nullptr;

void log_vek_error(const char* format, ...) {
  FILE* f = g_log_file;
  if (!f) return;
  time_t now = time(nullptr);
  struct tm tm_now;
  char stamp[64];
  localtime_r(&now, &tm_now);
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm_now);
  fprintf(f, "%s ", stamp);
  va_list ap;
  va_start(ap, format);
  vfprintf(f, format, ap);
  va_end(ap);
  fflush(f);
}

int vekLogInit(const char* filename, vek_log_err_func func) {
  if (func) g_vek_log_err_func = func;
  if (!filename) return 0;
  FILE* f = fopen(filename, "a");
  if (!f) return ERR_NOT_FOUND;
  g_log_file = f;
  return 0;
}
