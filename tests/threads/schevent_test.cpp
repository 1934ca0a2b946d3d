// ctest-labels: tsan
// Scheduled events: full sleeps, interrupts kept for the next sleep,
// interrupts from another thread, absolute deadlines and bad time-outs.
#include <thread>

#include "lock_test.hpp"

#include <vekutil/errors.h>
#include <vekutil/schevent.h>
#include <vekutil/timeutil.h>

namespace {

using locktest::Clock;
using locktest::elapsed_ms;

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

TEST_F(SchEventTest, APendingInterruptCutsOnlyTheNextSleep) {
  Clock::time_point start = Clock::now();
  EXPECT_EQ(0, schevent_waitfor(event_, 50));
  EXPECT_GE(elapsed_ms(start), 49);

  ASSERT_EQ(0, schevent_interrupt(event_));
  start = Clock::now();
  EXPECT_EQ(ERR_INTERRUPTED, schevent_waitfor(event_, 1000)) << "the pending interrupt ends the sleep";
  EXPECT_EQ(ERR_INTERRUPTED, schevent_error(event_));

  start = Clock::now();
  EXPECT_EQ(0, schevent_waitfor(event_, 50)) << "the interrupt was consumed";
  EXPECT_GE(elapsed_ms(start), 49);
}

TEST_F(SchEventTest, InterruptsFromAnotherThreadEndEverySleep) {
  ASSERT_EQ(0, schevent_interrupt(event_));
  EXPECT_EQ(0, schevent_wait(event_)) << "the untimed sleep returns 0 when interrupted";
  std::thread interrupter = interrupt_soon();
  EXPECT_EQ(0, schevent_wait(event_));
  interrupter.join();

  interrupter = interrupt_soon();
  EXPECT_EQ(ERR_INTERRUPTED, schevent_waituntil(event_, time_now() + 5000));
  interrupter.join();
}

TEST_F(SchEventTest, DeadlinesInThePastReturnAtOnce) {
  EXPECT_EQ(0, schevent_waituntil(event_, time_now() - 1000));
  EXPECT_EQ(0, schevent_waituntil(event_, -1999)) << "a negative time is simply past";
  EXPECT_EQ(0, schevent_waitfor(event_, -1)) << "-1 is a deadline just past, not for ever";
  ASSERT_EQ(0, schevent_interrupt(event_));
  EXPECT_EQ(ERR_INTERRUPTED, schevent_waituntil(event_, time_now() - 1000));

  EXPECT_EQ(ERR_INVALID_PARAMETER, schevent_waitfor(event_, -2));
  EXPECT_EQ(ERR_INVALID_PARAMETER, schevent_error(event_));
}

}  // namespace
