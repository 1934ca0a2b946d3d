// ctest-labels: tsan
// Threads: creation, the stack-size policy written back, priorities, ids, sleep.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <fstream>

#include "lock_test.hpp"

#include <vekutil/errors.h>
#include <vekutil/semaphore.h>
#include <vekutil/threads.h>

namespace {

using locktest::Clock;
using locktest::elapsed_ms;

// Restores the process-wide defaults a test changes.
class ThreadsTest : public vektest::LeakCheckedTest {
 protected:
  void TearDown() override {
    thread_set_stack_size(1048576);
    thread_set_stack_min(0);
    thread_set_default_prio(0);
    LeakCheckedTest::TearDown();
  }
};

void* report_own_id(void* out) {
  *static_cast<int*>(out) = thread_id(nullptr);
  return out;
}

void* do_nothing(void*) { return nullptr; }

// Runs a joinable thread with ex and returns the stack size written back.
int stack_after_create(int requested) {
  THREAD_EX_ARGS ex = {"sized", requested, 0};
  void* t = nullptr;
  EXPECT_EQ(0, thread_create_ex(&t, do_nothing, nullptr, &ex));
  EXPECT_EQ(0, thread_join(t, nullptr));
  EXPECT_EQ(0, thread_delete(t));
  return ex.stack;
}

void* post_semaphore(void* sem) {
  semaphore_signal(sem);
  return nullptr;
}

TEST_F(ThreadsTest, JoinReturnsTheResultIdsAgreeAndDetachedThreadsRun) {
  int seen_inside = 0;
  void* t = nullptr;
  ASSERT_EQ(0, thread_create(&t, report_own_id, &seen_inside));
  void* result = nullptr;
  ASSERT_EQ(0, thread_join(t, &result));
  EXPECT_EQ(&seen_inside, result);
  EXPECT_EQ(thread_id(t), seen_inside);
  EXPECT_NE(thread_id(nullptr), seen_inside);
  EXPECT_EQ(0, thread_error(t));
  EXPECT_EQ(0, thread_delete(t));
  ASSERT_EQ(0, thread_create(&t, do_nothing, nullptr));
  EXPECT_EQ(0, thread_detach(t));
  EXPECT_EQ(0, thread_delete(t));

  void* sem = nullptr;
  ASSERT_EQ(0, semaphore_create(&sem));
  ASSERT_EQ(0, thread_create_detached(post_semaphore, sem));
  THREAD_EX_ARGS ex = {nullptr, 100, 0};
  ASSERT_EQ(0, thread_create_detached_ex(post_semaphore, sem, &ex));
  EXPECT_EQ(16384, ex.stack);
  EXPECT_EQ(0, semaphore_timedwait(sem, 5000));
  EXPECT_EQ(0, semaphore_timedwait(sem, 5000));
  EXPECT_EQ(0, semaphore_delete(sem));
}

TEST_F(ThreadsTest, StackRequestsAreCorrectedAndPriorityStepsAreHarmless) {
  THREAD_EX_ARGS* ex = nullptr;
  ASSERT_EQ(0, thread_ex_create(&ex));
  EXPECT_EQ(nullptr, ex->name);
  EXPECT_EQ(1048576, ex->stack);
  EXPECT_EQ(0, ex->priority);
  thread_ex_delete(ex);

  EXPECT_EQ(16384, stack_after_create(1000));
  EXPECT_EQ(200000, stack_after_create(200000));
  thread_set_stack_min(65536);
  EXPECT_EQ(65536, stack_after_create(20000));
  thread_set_stack_min(20000);  // a minimum below the floor wins over it
  EXPECT_EQ(20000, stack_after_create(1000));

  // Under the default policy the priority reads back as 0: no step, no failure.
  thread_set_default_prio(-1);
  EXPECT_EQ(0, g_thread_default_prio);
  thread_set_default_prio(2);
  vektest::LogCapture log;
  EXPECT_EQ(65536, stack_after_create(65536));
  EXPECT_FALSE(log.contains("failed")) << log.text();
}

void ignore_signal(int) {}

std::atomic<bool> g_sleeper_started{false};
pthread_t g_sleeper;

void* sleep_200ms(void* elapsed) {
  g_sleeper = pthread_self();
  g_sleeper_started = true;
  Clock::time_point start = Clock::now();
  thread_sleep(200);
  *static_cast<long long*>(elapsed) = elapsed_ms(start);
  return nullptr;
}

TEST_F(ThreadsTest, SleepResumesAfterSignals) {
  thread_sleep(0);
  thread_sleep(-5);  // an invalid time returns at once

  struct sigaction action = {}, previous = {};
  action.sa_handler = ignore_signal;
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));
  long long slept = 0;
  void* t = nullptr;
  ASSERT_EQ(0, thread_create(&t, sleep_200ms, &slept));
  while (!g_sleeper_started) thread_sleep(1);
  for (int i = 0; i < 5; ++i) {
    thread_sleep(20);
    pthread_kill(g_sleeper, SIGUSR1);
  }
  ASSERT_EQ(0, thread_join(t, nullptr));
  EXPECT_GE(slept, 199);
  EXPECT_EQ(0, thread_delete(t));
  sigaction(SIGUSR1, &previous, nullptr);
}

TEST_F(ThreadsTest, RefusedOrIncompleteCreationRequestsFail) {
  // A 1 GiB stack cannot fit under an address space capped just above current use.
  vektest::LogCapture log;
  void* t = nullptr;
  THREAD_EX_ARGS ex = {nullptr, 1 << 30, 0};
  struct rlimit saved;
  getrlimit(RLIMIT_AS, &saved);
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  struct rlimit capped = saved;
  capped.rlim_cur = (rlim_t)pages * (rlim_t)sysconf(_SC_PAGESIZE) + (256u << 20);
  setrlimit(RLIMIT_AS, &capped);
  const int joinable = thread_create_ex(&t, do_nothing, nullptr, &ex);
  const int detached = thread_create_detached_ex(do_nothing, nullptr, &ex);
  setrlimit(RLIMIT_AS, &saved);

  EXPECT_EQ(ERR_SYSTEM, joinable);
  EXPECT_EQ(ERR_SYSTEM, detached);
  ASSERT_NE(nullptr, t) << "the record stays for thread_error";
  EXPECT_EQ(EAGAIN, thread_error(t));
  EXPECT_TRUE(log.contains("thread_create_ex(): pthread_create failed[11]\n")) << log.text();
  EXPECT_TRUE(log.contains("thread_create_detached_ex(): pthread_create failed[11]\n")) << log.text();
  EXPECT_EQ(0, thread_delete(t));

  EXPECT_EQ(ERR_INVALID_PARAMETER, thread_create(&t, nullptr, nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, thread_create_ex(&t, do_nothing, nullptr, nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, thread_create_detached_ex(do_nothing, nullptr, nullptr));
  EXPECT_EQ(ERR_INVALID_PARAMETER, thread_ex_create(nullptr));
}

}  // namespace
