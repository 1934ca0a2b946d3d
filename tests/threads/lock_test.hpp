// Shared by the lock, event and thread tests.
#pragma once

#include <chrono>

#include <vek_test.hpp>
#include <vekutil/event.h>
#include <vekutil/mutex.h>
#include <vekutil/rwlock.h>

namespace locktest {

using LockTest = vektest::LeakCheckedTest;

using Clock = std::chrono::steady_clock;

inline long long elapsed_ms(Clock::time_point since) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

}  // namespace locktest
