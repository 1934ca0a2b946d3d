// Shared by the lock, event and thread tests.
#pragma once

#include <chrono>

#include <vek_test.hpp>
#include <vekutil/event.h>
#include <vekutil/mutex.h>
#include <vekutil/rwlock.h>

namespace locktest {

// The first mutex, read-write lock and event make their registry groups,
// which live for the whole process: make them before the leak accounting
// starts.
class LockTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    void* warm = nullptr;
    if (mutex_create(&warm) == 0) mutex_delete(warm);
    if (rwlock_create(&warm) == 0) rwlock_delete(warm);
    if (event_create(&warm) == 0) event_delete(warm);
    LeakCheckedTest::SetUp();
  }
};

using Clock = std::chrono::steady_clock;

inline long long elapsed_ms(Clock::time_point since) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

}  // namespace locktest
