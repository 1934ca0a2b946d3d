// Wall-clock milliseconds, local-time text and monotonic stopwatches.
#include <ctime>

#include <vekutil/timeutil.h>

namespace {

long long clock_ms(clockid_t clock) {
  struct timespec ts;
  clock_gettime(clock, &ts);
  return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

long long time_now(void) { return clock_ms(CLOCK_REALTIME); }

long long time_now_in_sec(void) { return (long long)time(nullptr); }

char* time_sprintf(char* buffer, int size, const char* fmt, long long time_ms) {
  if (!buffer || !fmt || size < 1) return nullptr;
  time_t seconds = (time_t)(time_ms / 1000);
  struct tm local;
  if (!localtime_r(&seconds, &local) || strftime(buffer, (size_t)size, fmt, &local) == 0) buffer[0] = '\0';
  return buffer;
}

void mstimer_start(VEK_MSTIMER* timer) {
  if (timer) timer->start_ms = clock_ms(CLOCK_MONOTONIC);
}

long long mstimer_elapsed(const VEK_MSTIMER* timer) {
  return timer ? clock_ms(CLOCK_MONOTONIC) - timer->start_ms : 0;
}

long long mstimer_restart(VEK_MSTIMER* timer) {
  if (!timer) return 0;
  long long now = clock_ms(CLOCK_MONOTONIC);
  long long elapsed = now - timer->start_ms;
  timer->start_ms = now;
  return elapsed;
}
