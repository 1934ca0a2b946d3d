// Stack sizes of the threads the library starts itself. Not installed.
#pragma once

namespace vek::threads {

// The least stack a library thread gets when it runs caller code (pool
// workers, asynchronous socket workers, the syslog listener) or name lookups:
// callbacks, gethostbyname, OpenSSL and SQLite all need far more than the
// 32 KiB the original design handed out.
inline constexpr int kCallerCodeStackMin = 256 * 1024;

// The stack size a library thread that runs caller code is started with:
// the size asked for when it is above the old fixed 32 KiB, else the floor
// above.
constexpr int caller_code_stack(int requested) {
  return requested > 32768 ? requested : kCallerCodeStackMin;
}

}  // namespace vek::threads
