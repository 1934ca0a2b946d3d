// ctest-labels: tsan
// The mutex between threads: exclusion, trylock against another owner, an
// exact counter under heavy contention, and the registry reading locks that
// are in use.
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include <vek_test.hpp>
#include <vekutil/instrument.h>
#include <vekutil/json.h>
#include <vekutil/mutex.h>
#include <vekutil/rwlock.h>

namespace {

// The first read-write lock makes its registry group, which lives for the
// whole process: make it before the leak accounting starts.
class MutexContentionTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    void* warm = nullptr;
    rwlock_create(&warm);
    rwlock_delete(warm);
    LeakCheckedTest::SetUp();
  }
};

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

// The registry reads the diagnostic fields while their owners work: this
// must be free of data races (the sanitizer run checks).
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
  std::vector<std::thread> workers;
  for (int t = 0; t < 2; ++t) {
    workers.emplace_back([&] {
      for (int i = 0; i < 5000; ++i) {
        MUTEX_LOCK(m);
        MUTEX_UNLOCK(m);
        RWLOCK_READLOCK(rw);
        rwlock_unlock(rw);
      }
    });
  }
  for (auto& t : workers) t.join();
  done = true;
  watcher.join();
  EXPECT_EQ(0, mutex_delete(m));
  EXPECT_EQ(0, rwlock_delete(rw));
}

}  // namespace
