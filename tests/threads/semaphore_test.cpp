// ctest-labels: tsan
// Counting semaphores: counts, timed waits and a wake-up across threads.
#include <cerrno>
#include <thread>

#include <vek_test.hpp>
#include <vekutil/errors.h>
#include <vekutil/semaphore.h>

namespace {

using SemaphoreTest = vektest::LeakCheckedTest;

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
}

TEST_F(SemaphoreTest, AnImpossibleInitialCountFailsButKeepsTheRecord) {
  vektest::LogCapture log;
  void* sem = nullptr;
  EXPECT_EQ(ERR_SYSTEM, semaphore_create_ex(&sem, -1));  // above the maximum once unsigned
  ASSERT_NE(nullptr, sem);
  EXPECT_EQ(EINVAL, semaphore_error(sem));
  EXPECT_TRUE(log.contains("semaphore_create_ex(initial[-1]): sem_init failed[22]\n")) << log.text();
  EXPECT_EQ(0, semaphore_delete(sem));
}

}  // namespace
