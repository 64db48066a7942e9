#include <gtest/gtest.h>
#include <time.h>

#include <chrono>

#include "lumen/runtime/Clock.h"
#include "lumen/runtime/EventLoop.h"
#include "platform/System.h"
#include "support/ManualClock.h"

namespace {

using namespace std::chrono_literals;

// Promise [uptime-bits]: Uptime is whole seconds of the boot clock, cut to 32 bits.
TEST(System, UptimeIsWholeSecondsOfTheBootClock) {
  timespec before{};
  clock_gettime(CLOCK_BOOTTIME, &before);
  const uint32_t uptime = lm::getUptime();
  timespec after{};
  clock_gettime(CLOCK_BOOTTIME, &after);
  EXPECT_GE(uptime, before.tv_sec);
  EXPECT_LE(uptime, after.tv_sec);
}

// Also proves [uptime-bits].
TEST(System, UptimeRunsOnTheClockOfTheEventLoop) {
  lm::test::ManualClock clock;
  clock.moveTo(lm::Clock::Time(5'000'000'999ms));
  const lm::EventLoop loop(clock);
  EXPECT_EQ(lm::getUptime(), 5'000'000U);
  clock.advance(1ms);
  EXPECT_EQ(lm::getUptime(), 5'000'001U);
  clock.moveTo(lm::Clock::Time(4'294'967'296s));
  EXPECT_EQ(lm::getUptime(), 0U) << "cut to 32 bits";
}

// Promise [clock-unit]: The loop's clock counts milliseconds.
TEST(System, ClockCountsMilliseconds) {
  const std::chrono::seconds before(lm::getUptime());
  const std::chrono::milliseconds now = lm::SystemClock().now().time_since_epoch();
  const std::chrono::seconds after(lm::getUptime());
  EXPECT_GE(now, before);
  EXPECT_LT(now, after + 1s);
}

// Promise: The version text that programs announce is the version of this software and one blank.
TEST(System, VersionEndsInOneBlank) { EXPECT_EQ(getOSVersion(), PALINODE_VERSION " "); }

}  // namespace
