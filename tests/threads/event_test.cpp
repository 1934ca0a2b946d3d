// ctest-labels: tsan
// Events as manual-reset gates: timed and endless waits, opening for one or
// all waiters, closing again, and the failure of an invalid time-out.
#include <cerrno>
#include <thread>

#include "lock_test.hpp"

#include <vekutil/errors.h>

namespace {

using std::chrono::milliseconds;

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

TEST_F(EventTest, ANewEventIsClosedAndATimedWaitExpires) {
  EXPECT_EQ(ERR_TIMEOUT, EVENT_WAIT(event_, 100));
  EXPECT_EQ(ERR_TIMEOUT, event_error(event_));
  EXPECT_EQ(ERR_TIMEOUT, event_wait(event_, 0)) << "0 on a closed gate times out at once";
}

TEST_F(EventTest, AnOpenedGateLetsEveryLaterWaitPassUntilClosed) {
  ASSERT_EQ(0, event_unlock1(event_));
  for (int waiter = 0; waiter < 3; ++waiter) EXPECT_EQ(0, event_wait(event_, -1));
  EXPECT_EQ(0, event_wait(event_, -5)) << "an open gate never looks at the time-out";
  ASSERT_EQ(0, event_lock(event_));
  EXPECT_EQ(ERR_TIMEOUT, event_wait(event_, 0));
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

TEST_F(EventTest, ATimeOutBelowMinusOneFailsOnAClosedGate) {
  vektest::LogCapture log;
  EXPECT_EQ(ERR_SYSTEM, EVENT_WAIT(event_, -1500));
  EXPECT_EQ(EINVAL, event_error(event_));
  EXPECT_TRUE(log.contains("event_wait(name[gate],timeout[-1500],file[")) << log.text();
  EXPECT_TRUE(log.contains("]): pthread_mutex_unlock3 failed[22] errno[")) << log.text();
}

}  // namespace
