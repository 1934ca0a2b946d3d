// ctest-labels: tsan
// The mutex between threads: exclusion, trylock against another owner, and
// an exact counter under heavy contention.
#include <thread>
#include <vector>

#include <vek_test.hpp>
#include <vekutil/mutex.h>

namespace {

using MutexContentionTest = vektest::LeakCheckedTest;

int trylock_from_other_thread(void* m) {
  int result = -1;
  std::thread other([&] {
    result = MUTEX_TRYLOCK(m);
    if (result == 0) MUTEX_UNLOCK(m);
  });
  other.join();
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
  constexpr int kRounds = 100000;
  constexpr int kThreads = 8;
  void* m = nullptr;
  ASSERT_EQ(0, MUTEX_CREATE(&m, "counter", 0));
  long counter = 0;
  int failures = 0;  // guarded by m as well
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        if (MUTEX_LOCK(m) != 0) continue;
        ++counter;
        if (MUTEX_UNLOCK(m) != 0) ++failures;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ((long)kThreads * kRounds, counter);
  EXPECT_EQ(0, failures);
  EXPECT_EQ(0, mutex_delete(m));
}

}  // namespace
