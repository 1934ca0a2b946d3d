// ctest-labels: tsan
// Locks between threads: trylock, exact counters, the registry reading locks in use.
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "lock_test.hpp"

#include <vekutil/instrument.h>
#include <vekutil/json.h>

namespace {

using MutexContentionTest = locktest::LockTest;

template <class Body>
void on_threads(int count, Body body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body);
  for (auto& t : threads) t.join();
}

int trylock_from_other_thread(void* m) {
  int result = -1;
  on_threads(1, [&] {
    result = MUTEX_TRYLOCK(m);
    if (result == 0) MUTEX_UNLOCK(m);
  });
  return result;
}

TEST_F(MutexContentionTest, TrylockSeesAnotherThreadsLock) {
  void* m = nullptr;
  ASSERT_EQ(0, MUTEX_CREATE(&m, "shared", 0));
  ASSERT_EQ(0, MUTEX_LOCK(m));
  EXPECT_EQ(1, trylock_from_other_thread(m)) << "busy is 1, not an error";
  EXPECT_EQ(0, mutex_error(m));
  ASSERT_EQ(0, MUTEX_UNLOCK(m));
  EXPECT_EQ(0, trylock_from_other_thread(m));
  EXPECT_EQ(0, mutex_delete(m));
}

// Exact counters under both locks while the registry renders them, race-free.
TEST_F(MutexContentionTest, CountersStayExactWhileTheRegistryRendersTheLocks) {
  constexpr int kThreads = 8, kRounds = 50000;
  void* m = nullptr;
  void* rw = nullptr;
  ASSERT_EQ(0, MUTEX_CREATE(&m, "watched", 0));
  ASSERT_EQ(0, rwlock_create(&rw));
  std::atomic<bool> done{false};
  std::thread watcher([&] {
    while (!done) {
      JSON* json = nullptr;
      if (instrument_detail(mutex_instrument_handle(), (long long)(intptr_t)m, &json) == 0) json_Delete(json);
      if (instrument_list(rwlock_instrument_handle(), &json) == 0) json_Delete(json);
    }
  });
  long under_mutex = 0, under_rwlock = 0;
  std::atomic<int> failures{0};
  on_threads(kThreads, [&] {
    for (int i = 0; i < kRounds; ++i) {
      if (MUTEX_LOCK(m) != 0) {
        ++failures;
        continue;
      }
      ++under_mutex;
      failures += MUTEX_UNLOCK(m) != 0;
      failures += RWLOCK_READLOCK(rw) != 0;
      failures += rwlock_unlock(rw) != 0;
      if (RWLOCK_WRITELOCK(rw) != 0) {
        ++failures;
        continue;
      }
      ++under_rwlock;
      failures += rwlock_unlock(rw) != 0;
    }
  });
  done = true;
  watcher.join();
  EXPECT_EQ((long)kThreads * kRounds, under_mutex);
  EXPECT_EQ((long)kThreads * kRounds, under_rwlock);
  EXPECT_EQ(0, failures);
  EXPECT_EQ(0, mutex_delete(m));
  EXPECT_EQ(0, rwlock_delete(rw));
}

}  // namespace
