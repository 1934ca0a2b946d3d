// ctest-labels: tsan
// Mutexes and read-write locks between threads (with the registry reading them),
// events as manual-reset gates, semaphores, scheduled events.
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <thread>
#include <vector>

#include "lock_test.hpp"

#include <vekutil/errors.h>
#include <vekutil/instrument.h>
#include <vekutil/json.h>
#include <vekutil/schevent.h>
#include <vekutil/semaphore.h>
#include <vekutil/timeutil.h>

namespace {

using locktest::Clock;
using locktest::elapsed_ms;
using std::chrono::milliseconds;
using RwlockTest = locktest::LockTest;
using SemaphoreTest = locktest::LockTest;
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

class EventTest : public locktest::LockTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_EQ(0, event_create_ex(&event_, "gate", 0));
  }
  void TearDown() override {
    EXPECT_EQ(0, event_delete(event_));
    LeakCheckedTest::TearDown();
  }
  void* event_ = nullptr;
};

// A new event is a closed gate; once opened every wait passes until it is closed.
TEST_F(EventTest, GateOpensAndClosesForTimedAndUntimedWaits) {
  EXPECT_EQ(ERR_TIMEOUT, EVENT_WAIT(event_, 100));
  EXPECT_EQ(ERR_TIMEOUT, event_error(event_));
  EXPECT_EQ(ERR_TIMEOUT, event_wait(event_, 0)) << "0 on a closed gate times out at once";
  ASSERT_EQ(0, event_unlock1(event_));
  for (int waiter = 0; waiter < 3; ++waiter) EXPECT_EQ(0, event_wait(event_, -1));
  EXPECT_EQ(0, event_wait(event_, -5)) << "an open gate never looks at the time-out";
  ASSERT_EQ(0, event_lock(event_));
  EXPECT_EQ(ERR_TIMEOUT, event_wait(event_, 0));

  vektest::LogCapture log;  // below -1 is refused on a closed gate
  EXPECT_EQ(ERR_SYSTEM, EVENT_WAIT(event_, -1500));
  EXPECT_EQ(EINVAL, event_error(event_));
  EXPECT_TRUE(log.contains("event_wait(name[gate],timeout[-1500],file[")) << log.text();
  EXPECT_TRUE(log.contains("]): pthread_mutex_unlock3 failed[22] errno[")) << log.text();
}

TEST_F(EventTest, UnlockReleasesBlockedWaitersButLockKeepsThemWaiting) {
  int results[3] = {1, 1, 1};
  std::thread waiters[3];
  for (int i = 0; i < 3; ++i)
    waiters[i] = std::thread([&, i] { results[i] = event_wait(event_, i == 0 ? 1500 : -1); });
  std::this_thread::sleep_for(milliseconds(30));
  ASSERT_EQ(0, event_lock(event_));  // wakes the waiters, who sleep on
  std::this_thread::sleep_for(milliseconds(30));
  ASSERT_EQ(0, event_unlock(event_));
  for (auto& t : waiters) t.join();
  for (int r : results) EXPECT_EQ(0, r);
}

TEST_F(RwlockTest, ReadersShareAndAWriterWaitsForThem) {
  void* rw = nullptr;
  ASSERT_EQ(0, rwlock_create_ex(&rw, 0, "shared"));
  ASSERT_EQ(0, RWLOCK_READLOCK(rw));
  ASSERT_EQ(0, rwlock_readlock(rw));  // a second reader in the same thread

  std::atomic<bool> writer_in{false};
  std::thread writer([&] {
    EXPECT_EQ(0, RWLOCK_WRITELOCK(rw));
    writer_in = true;
    EXPECT_EQ(0, rwlock_unlock(rw));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(writer_in) << "a writer must wait for the readers";
  EXPECT_EQ(0, rwlock_unlock(rw));
  EXPECT_EQ(0, rwlock_unlock(rw));
  writer.join();
  EXPECT_TRUE(writer_in);
  EXPECT_EQ(0, rwlock_error(rw));
  EXPECT_EQ(0, rwlock_delete(rw));
}

TEST_F(SemaphoreTest, SignalsAndWaitsMoveTheCount) {
  void* sem = nullptr;
  ASSERT_EQ(0, semaphore_create(&sem));
  EXPECT_EQ(ERR_TIMEOUT, semaphore_timedwait(sem, 0));
  EXPECT_EQ(ERR_TIMEOUT, semaphore_error(sem));
  for (int i = 0; i < 3; ++i) ASSERT_EQ(0, semaphore_signal(sem));
  EXPECT_EQ(3, semaphore_count(sem));
  EXPECT_EQ(0, semaphore_wait(sem));
  EXPECT_EQ(0, semaphore_timedwait(sem, 0));
  EXPECT_EQ(1, semaphore_count(sem));
  EXPECT_EQ(0, semaphore_delete(sem));

  ASSERT_EQ(0, semaphore_create_ex(&sem, 2));
  EXPECT_EQ(2, semaphore_count(sem));
  std::thread signaller([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    semaphore_signal(sem);
  });
  EXPECT_EQ(0, semaphore_wait(sem));
  EXPECT_EQ(0, semaphore_wait(sem));
  EXPECT_EQ(0, semaphore_timedwait(sem, 5000)) << "woken by the other thread";
  signaller.join();
  EXPECT_EQ(0, semaphore_delete(sem));

  vektest::LogCapture log;  // an initial count above the maximum once unsigned fails but keeps the record
  EXPECT_EQ(ERR_SYSTEM, semaphore_create_ex(&sem, -1));
  ASSERT_NE(nullptr, sem);
  EXPECT_EQ(EINVAL, semaphore_error(sem));
  EXPECT_TRUE(log.contains("semaphore_create_ex(initial[-1]): sem_init failed[22]\n")) << log.text();
  EXPECT_EQ(0, semaphore_delete(sem));
}

class SchEventTest : public vektest::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ASSERT_EQ(0, schevent_create(&event_));
  }
  void TearDown() override {
    EXPECT_EQ(0, schevent_delete(event_));
    LeakCheckedTest::TearDown();
  }
  // Interrupts the event from another thread after 20 ms.
  std::thread interrupt_soon() {
    return std::thread([this] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      schevent_interrupt(event_);
    });
  }
  void* event_ = nullptr;
};

TEST_F(SchEventTest, InterruptsCutOnlyTheNextSleepAndPastDeadlinesReturnAtOnce) {
  Clock::time_point start = Clock::now();
  EXPECT_EQ(0, schevent_waitfor(event_, 50));
  EXPECT_GE(elapsed_ms(start), 49);

  ASSERT_EQ(0, schevent_interrupt(event_));
  EXPECT_EQ(ERR_INTERRUPTED, schevent_waitfor(event_, 1000)) << "the pending interrupt ends the sleep";
  EXPECT_EQ(ERR_INTERRUPTED, schevent_error(event_));

  start = Clock::now();
  EXPECT_EQ(0, schevent_waitfor(event_, 50)) << "the interrupt was consumed";
  EXPECT_GE(elapsed_ms(start), 49);

  EXPECT_EQ(0, schevent_waituntil(event_, time_now() - 1000));
  EXPECT_EQ(0, schevent_waituntil(event_, -1999)) << "a negative time is simply past";
  EXPECT_EQ(0, schevent_waitfor(event_, -1)) << "-1 is a deadline just past, not for ever";
  ASSERT_EQ(0, schevent_interrupt(event_));
  EXPECT_EQ(ERR_INTERRUPTED, schevent_waituntil(event_, time_now() - 1000));

  EXPECT_EQ(ERR_INVALID_PARAMETER, schevent_waitfor(event_, -2));
  EXPECT_EQ(ERR_INVALID_PARAMETER, schevent_error(event_));

  ASSERT_EQ(0, schevent_interrupt(event_));
  EXPECT_EQ(0, schevent_wait(event_)) << "the untimed sleep returns 0 when interrupted";
  std::thread interrupter = interrupt_soon();
  EXPECT_EQ(0, schevent_wait(event_));
  interrupter.join();

  interrupter = interrupt_soon();
  EXPECT_EQ(ERR_INTERRUPTED, schevent_waituntil(event_, time_now() + 5000));
  interrupter.join();
}

}  // namespace
