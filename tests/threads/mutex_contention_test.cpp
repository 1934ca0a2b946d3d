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

TEST_F(MutexContentionTest, CounterStaysExactUnderContention) {
  constexpr int kThreads = 8, kRounds = 100000;
  void* m = nullptr;
  ASSERT_EQ(0, MUTEX_CREATE(&m, "counter", 0));
  long counter = 0;
  std::atomic<int> failures{0};
  on_threads(kThreads, [&] {
    for (int i = 0; i < kRounds; ++i) {
      if (MUTEX_LOCK(m) != 0) {
        ++failures;
        continue;
      }
      ++counter;
      if (MUTEX_UNLOCK(m) != 0) ++failures;
    }
  });
  EXPECT_EQ((long)kThreads * kRounds, counter);
  EXPECT_EQ(0, failures);
  EXPECT_EQ(0, mutex_delete(m));
}

// The registry reads diagnostic fields while their owners lock (race-free under
// the sanitizer); the writers keep an exact counter under the read-write lock.
TEST_F(MutexContentionTest, RenderingWhileOthersLockIsSafe) {
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
  long counter = 0;
  on_threads(3, [&] {
    for (int i = 0; i < 5000; ++i) {
      MUTEX_LOCK(m);
      MUTEX_UNLOCK(m);
      RWLOCK_READLOCK(rw);
      rwlock_unlock(rw);
      RWLOCK_WRITELOCK(rw);
      ++counter;
      rwlock_unlock(rw);
    }
  });
  done = true;
  watcher.join();
  EXPECT_EQ(3 * 5000, counter);
  EXPECT_EQ(0, mutex_delete(m));
  EXPECT_EQ(0, rwlock_delete(rw));
}

}  // namespace
