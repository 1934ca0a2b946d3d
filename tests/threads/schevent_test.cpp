// ctest-labels: tsan
// Scheduled events: full sleeps, interrupts kept for the next sleep,
// interrupts from another thread, absolute deadlines and bad time-outs.
#include <chrono>
#include <thread>

#include <vek_test.hpp>
#include <vekutil/errors.h>
#include <vekutil/schevent.h>
#include <vekutil/timeutil.h>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

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
  void* event_ = nullptr;
};

long long elapsed_ms(Clock::time_point since) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - since).count();
}

TEST_F(SchEventTest, APendingInterruptCutsOnlyTheNextSleep) {
  Clock::time_point start = Clock::now();
  EXPECT_EQ(0, schevent_waitfor(event_, 50));
  EXPECT_GE(elapsed_ms(start), 49);

  ASSERT_EQ(0, schevent_interrupt(event_));
  start = Clock::now();
  EXPECT_EQ(ERR_INTERRUPTED, schevent_waitfor(event_, 1000));
  EXPECT_LT(elapsed_ms(start), 500) << "the pending interrupt returns at once";
  EXPECT_EQ(ERR_INTERRUPTED, schevent_error(event_));

  start = Clock::now();
  EXPECT_EQ(0, schevent_waitfor(event_, 50)) << "the interrupt was consumed";
  EXPECT_GE(elapsed_ms(start), 49);
}

TEST_F(SchEventTest, UntimedWaitReturnsZeroWhenInterrupted) {
  ASSERT_EQ(0, schevent_interrupt(event_));
  EXPECT_EQ(0, schevent_wait(event_));

  std::thread interrupter([&] {
    std::this_thread::sleep_for(milliseconds(20));
    schevent_interrupt(event_);
  });
  EXPECT_EQ(0, schevent_wait(event_));
  interrupter.join();
}

TEST_F(SchEventTest, AnotherThreadInterruptsATimedSleep) {
  std::thread interrupter([&] {
    std::this_thread::sleep_for(milliseconds(20));
    schevent_interrupt(event_);
  });
  Clock::time_point start = Clock::now();
  EXPECT_EQ(ERR_INTERRUPTED, schevent_waituntil(event_, time_now() + 5000));
  EXPECT_LT(elapsed_ms(start), 2500);
  interrupter.join();
}

TEST_F(SchEventTest, DeadlinesInThePastReturnAtOnce) {
  EXPECT_EQ(0, schevent_waituntil(event_, time_now() - 1000));
  EXPECT_EQ(0, schevent_waituntil(event_, -1999)) << "a negative time is simply past";
  EXPECT_EQ(0, schevent_waitfor(event_, -1)) << "-1 is a deadline just past, not for ever";
  EXPECT_EQ(0, schevent_waitfor(event_, 0));
  ASSERT_EQ(0, schevent_interrupt(event_));
  EXPECT_EQ(ERR_INTERRUPTED, schevent_waituntil(event_, time_now() - 1000));
}

TEST_F(SchEventTest, TimeOutsBelowMinusOneAreRefused) {
  EXPECT_EQ(ERR_INVALID_PARAMETER, schevent_waitfor(event_, -2));
  EXPECT_EQ(ERR_INVALID_PARAMETER, schevent_error(event_));
}

TEST(SchEventNullHandle, IsRefused) {
  EXPECT_EQ(ERR_INVALID_HANDLE, schevent_create(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, schevent_wait(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, schevent_waitfor(nullptr, 10));
  EXPECT_EQ(ERR_INVALID_HANDLE, schevent_waituntil(nullptr, 0));
  EXPECT_EQ(ERR_INVALID_HANDLE, schevent_interrupt(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, schevent_delete(nullptr));
  EXPECT_EQ(ERR_INVALID_HANDLE, schevent_error(nullptr));
}

}  // namespace
