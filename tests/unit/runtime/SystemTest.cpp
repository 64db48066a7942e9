#include <gtest/gtest.h>
#include <time.h>

#include "lumen/runtime/Clock.h"
#include "lumen/runtime/EventLoop.h"
#include "platform/System.h"
#include "support/ManualClock.h"

namespace {

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
  clock.moveTo(5'000'000'999);
  const lm::EventLoop loop(clock);
  EXPECT_EQ(lm::getUptime(), 5'000'000U);
  clock.advance(1);
  EXPECT_EQ(lm::getUptime(), 5'000'001U);
  clock.moveTo(4294967296'000);
  EXPECT_EQ(lm::getUptime(), 0U) << "cut to 32 bits";
}

// Promise [clock-unit]: The loop's clock counts milliseconds.
TEST(System, ClockCountsMilliseconds) {
  const uint64_t before = lm::getUptime();
  const uint64_t now = lm::SystemClock().now();
  const uint64_t after = lm::getUptime();
  EXPECT_GE(now, before * 1000);
  EXPECT_LT(now, (after + 1) * 1000);
}

// Promise: The version text that programs announce is the version of this software and one blank.
TEST(System, VersionEndsInOneBlank) { EXPECT_EQ(getOSVersion(), PALINODE_VERSION " "); }

}  // namespace
