// Single-thread mutex use and deliberate misuse, and null handles of the lock
// and thread calls. Misuse is what the thread sanitizer reports: no tsan label here.
#include <cerrno>

#include "lock_test.hpp"

#include <vekutil/errors.h>
#include <vekutil/schevent.h>
#include <vekutil/semaphore.h>
#include <vekutil/threads.h>

namespace {

using MutexTest = locktest::LockTest;

TEST_F(MutexTest, UnlockWithoutHoldingReportsBothPositions) {
  vektest::LogCapture log;
  void* m = nullptr;
  ASSERT_EQ(0, mutex_create_ex(&m, "loose", 0));
  const int locked_at = __LINE__ + 1;
  ASSERT_EQ(0, MUTEX_LOCK(m));
  ASSERT_EQ(0, mutex_unlock(m));
  EXPECT_EQ(ERR_SYSTEM, mutex_unlock(m));
  EXPECT_EQ(EPERM, mutex_error(m));
  EXPECT_TRUE(log.contains("mutex_unlock(name[loose]): at[")) << log.text();
  EXPECT_TRUE(log.contains(":Backward(0)] pthread_mutex_unlock failed[1] locked_by[")) << log.text();
  EXPECT_TRUE(log.contains(std::string(__FILE__) + "(" + std::to_string(locked_at) + ")]\n")) << log.text();
  EXPECT_EQ(0, mutex_delete(m));
}

TEST_F(MutexTest, DeletingAHeldMutexReleasesItAndFreesTheRecord) {
  vektest::LogCapture log;
  void* once = nullptr;
  ASSERT_EQ(0, mutex_create_ex(&once, "held once", 0));
  ASSERT_EQ(0, mutex_lock(once));
  EXPECT_EQ(0, mutex_delete(once));
  EXPECT_FALSE(log.contains("failed")) << "one unlock repairs a mutex held once: " << log.text();

  // Held twice, the destroy still fails and is logged; the record is freed anyway.
  void* twice = nullptr;
  ASSERT_EQ(0, mutex_create_ex(&twice, "held twice", 0));
  ASSERT_EQ(0, mutex_lock(twice));
  ASSERT_EQ(0, mutex_lock(twice));
  EXPECT_EQ(0, mutex_delete(twice));
  EXPECT_TRUE(log.contains("mutex_delete(name[held twice]): pthread_mutex_destroy failed[16]\n")) << log.text();
}

TEST_F(MutexTest, NullHandlesAreRefused) {
  for (int rc : {mutex_lock(nullptr), rwlock_readlock(nullptr), EVENT_WAIT(nullptr, 10), schevent_wait(nullptr),
                 semaphore_wait(nullptr), thread_join(nullptr, nullptr)})
    EXPECT_EQ(ERR_INVALID_HANDLE, rc);
}

}  // namespace
