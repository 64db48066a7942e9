#include <gtest/gtest.h>

#include "lumen/ctl/status/Traffic.h"
#include "platform/message.h"
#include "platform/wire/Interfaces.h"

namespace lumenctl {
namespace {

using namespace std::chrono_literals;

using Rates = std::deque<Traffic::Rate>;

Traffic::Time at(std::chrono::milliseconds time) { return Traffic::Time(time); }

Counters counted(uint64_t received, uint64_t sent) {
  lm::message record;
  record.insert_u64(lm::interfaces::key::bytesReceived, received);
  record.insert_u64(lm::interfaces::key::bytesSent, sent);
  return Counters(record);
}

TEST(TrafficTest, IsWhatWasCountedBetweenTwoReadings) {
  Traffic traffic;
  traffic.add(counted(1000, 50), at(10s));
  EXPECT_EQ(traffic.rates(), Rates{});
  traffic.add(counted(3000, 50), at(11s));
  traffic.add(counted(4000, 150), at(11'500ms));
  EXPECT_EQ(traffic.rates(), (Rates{{2000, 0}, {2000, 200}}));
}

TEST(TrafficTest, HandlesFullSpeed) {
  Traffic traffic;
  traffic.add(counted(0, 0), at(0s));
  traffic.add(counted(UINT64_MAX / 2, 12'500'000'000), at(1s));
  EXPECT_EQ(traffic.rates().back().sent, 12'500'000'000U);
}

// Promise: An interface that loses its counters between two readings, or is another one of the same
// name, shows no traffic of that second.
TEST(TrafficTest, HasNoRateBetweenTwoInterfacesOfOneName) {
  Traffic traffic;
  traffic.add(counted(5000, 5000), at(1s));
  traffic.add(counted(10, 6000), at(2s));
  EXPECT_EQ(traffic.rates(), Rates{});
  traffic.add(counted(20, 6000), at(3s));
  EXPECT_EQ(traffic.rates(), (Rates{{10, 0}}));
  traffic.add(counted(30, 5000), at(4s));
  EXPECT_EQ(traffic.rates().size(), 1U);
}

TEST(TrafficTest, HasNoRateBetweenReadingsAtTheSameTime) {
  Traffic traffic;
  traffic.add(counted(0, 0), at(1s));
  traffic.add(counted(10, 10), at(1s));
  EXPECT_EQ(traffic.rates(), Rates{});
}

TEST(TrafficTest, RemembersAMinute) {
  Traffic traffic;
  for (uint64_t second = 0; second < 100; ++second) {
    traffic.add(counted(second * second, 0), at(std::chrono::seconds(second)));
  }
  EXPECT_EQ(traffic.rates().size(), 60U);
  EXPECT_EQ(traffic.rates().back().received, 99U * 99 - 98 * 98);
}

}  // namespace
}  // namespace lumenctl
