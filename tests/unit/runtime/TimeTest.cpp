#include <gtest/gtest.h>

#include <chrono>

#include "lumen/runtime/Time.h"

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

}  // namespace
}  // namespace lumen
