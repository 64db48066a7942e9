#include <gtest/gtest.h>

#include "lumen/runtime/Time.h"
#include "support/ManualClock.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

TEST(Time, ATimerDoesNotFireBeforeItsWaitIsOver) {
  EXPECT_EQ(timerDelay(0ms), 0U);
  EXPECT_EQ(timerDelay(1ms), 1U);
  EXPECT_EQ(timerDelay(10ms), 1U);
  EXPECT_EQ(timerDelay(11ms), 2U);
  EXPECT_EQ(timerDelay(1min), 6000U);
}

TEST(Time, IsReadFromTheClockInMilliseconds) {
  lm::test::ManualClock clock;
  const auto before = timeOn(clock);
  clock.advance(1500);
  EXPECT_EQ(timeOn(clock) - before, 1500ms);
}

}  // namespace
}  // namespace lumen
