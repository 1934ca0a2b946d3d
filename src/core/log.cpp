// The process log: one time-stamped entry per internal failure, at most
// about 32 KB per run, older logs rolled into ten numbered generations.
#include <pthread.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <vekutil/file.h>

#include "core/internal.hpp"
#include "core/scoped_lock.hpp"

FILE* g_log_file = nullptr;
vek_log_err_func g_vek_log_err_func = nullptr;

namespace {

constexpr long kRollSize = 16384;    // a longer log is rolled at vekLogInit
constexpr long kCutOffSize = 32768;  // past this position logging stops
constexpr int kGenerations = 10;
constexpr size_t kNameSize = 147;    // log names longer than this are cut

// Entries are written, and the stream closed at the cut-off, under one lock:
// a thread that closes the stream can never pull it from under another one
// that is still writing. Logging is rare (failures only), so the lock costs
// nothing that matters.
pthread_mutex_t g_log_lock = PTHREAD_MUTEX_INITIALIZER;

void write_time_stamp(FILE* f) {
  time_t now = time(nullptr);
  struct tm local;
  char stamp[64];
  localtime_r(&now, &local);
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  fprintf(f, "%s ", stamp);
}

// False when the name does not fit: a cut name could be the log itself.
bool generation_name(char (&name)[kNameSize], const char* filename, int generation) {
  const int needed = snprintf(name, kNameSize, "%s.%d", filename, generation);
  return needed >= 0 && static_cast<size_t>(needed) < kNameSize;
}

}  // namespace

void log_vek_error(const char* format, ...) {
  vek::ScopedLock lock(g_log_lock);
  FILE* f = g_log_file;
  if (!f) return;
  if (ftell(f) > kCutOffSize) {
    g_log_file = nullptr;
    fclose(f);
    return;
  }
  write_time_stamp(f);
  va_list ap;
  va_start(ap, format);
  vfprintf(f, format, ap);
  va_end(ap);
  fflush(f);
}

void _log_roll(FILE** file, const char* filename) {
  if (!file) return;
  if (*file) fclose(*file);
  *file = nullptr;
  if (!filename) return;
  char base[kNameSize];
  vek::copy_name(base, kNameSize, filename);
  char from[kNameSize];
  char to[kNameSize];
  // The highest generation has the longest name: when it does not fit, no
  // roll takes place and the current log is kept and appended to.
  if (!generation_name(to, filename, kGenerations)) {
    *file = fopen(filename, "a");
    return;
  }
  file_delete(to);  // a missing file is no error
  for (int i = kGenerations; i >= 2; --i) {
    generation_name(from, filename, i - 1);
    generation_name(to, filename, i);
    file_move(from, to);  // missing generations are skipped
  }
  generation_name(to, filename, 1);
  file_move(base, to);
  *file = fopen(base, "w");
}

int vekLogInit(const char* filename, vek_log_err_func func) {
  if (func) g_vek_log_err_func = func;
  if (!filename) return 0;
  FILE* f = fopen(filename, "a");
  if (!f) return ERR_NOT_FOUND;
  fseek(f, 0, SEEK_END);
  if (ftell(f) > kRollSize) _log_roll(&f, filename);
  if (!f) return ERR_NOT_FOUND;  // the fresh log could not be created
  write_time_stamp(f);
  fprintf(f, "==========================Log Started==========================\n");
  fflush(f);
  vek::ScopedLock lock(g_log_lock);
  g_log_file = f;
  return 0;
}
