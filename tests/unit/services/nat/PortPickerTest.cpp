#include <gtest/gtest.h>

#include <map>
#include <set>

#include "lumen/services/nat/PortPicker.h"

namespace lumen::test {

namespace {

const auto allFree = [](uint16_t) { return true; };

PortRanges ranges(const char* text) { return *PortRanges::parse(text); }

}  // namespace

// Promise: Each port that is free is as likely to be chosen as any other one.
TEST(PortPicker, ChoosesAllPortsEquallyOften) {
  PortPicker picker(20261122);
  std::map<uint16_t, int> chosen;
  for (int i = 0; i < 10'000; ++i) ++chosen[*picker.pick(ranges("5000-5005, 7000-7003"), allFree)];
  EXPECT_EQ(chosen.size(), 10U);
  for (const auto& [port, times] : chosen) {
    EXPECT_NEAR(times, 1000, 150) << port;
    EXPECT_TRUE((port >= 5000 && port <= 5005) || (port >= 7000 && port <= 7003)) << port;
  }
}

TEST(PortPicker, PrefersNoPortThatFollowsOthersThatAreTaken) {
  PortPicker picker(20261122);
  std::map<uint16_t, int> chosen;
  const auto isFree = [](uint16_t port) { return port == 5003 || port >= 5090; };
  for (int i = 0; i < 10'000; ++i) ++chosen[*picker.pick(ranges("5000-5100"), isFree)];
  EXPECT_EQ(chosen.size(), 12U);
  for (const auto& [port, times] : chosen) EXPECT_NEAR(times, 10'000 / 12, 150) << port;
}

TEST(PortPicker, CountsAPortThatIsInSeveralRangesOnce) {
  PortPicker picker(1);
  std::map<uint16_t, int> chosen;
  for (int i = 0; i < 10'000; ++i) {
    ++chosen[*picker.pick(ranges("5002-5003, 5000-5003, 5003, 5001-5002"), allFree)];
  }
  EXPECT_EQ(chosen.size(), 4U);
  for (const auto& [port, times] : chosen) EXPECT_NEAR(times, 2500, 250) << port;
}

TEST(PortPicker, FindsTheOnlyPortThatIsFree) {
  PortPicker picker(1);
  for (const uint16_t last : {uint16_t{1024}, uint16_t{40'000}, uint16_t{65535}}) {
    EXPECT_EQ(picker.pick(ranges("1024-65535"), [=](uint16_t port) { return port == last; }), last);
  }
}

TEST(PortPicker, AsksForEachPortBeforeItGivesUp) {
  PortPicker picker(1);
  std::multiset<uint16_t> asked;
  EXPECT_EQ(picker.pick(ranges("5000-5099, 5050-5149"),
                        [&](uint16_t port) {
                          asked.insert(port);
                          return false;
                        }),
            std::nullopt);
  EXPECT_LT(asked.size(), 200U);
  EXPECT_EQ(std::set<uint16_t>(asked.begin(), asked.end()).size(), 150U);
}

TEST(PortPicker, ChoosesNothingWhereNothingIsAllowed) {
  EXPECT_EQ(PortPicker(1).pick(PortRanges(), allFree), std::nullopt);
  EXPECT_EQ(PortPicker(1).pick(ranges("5000"), allFree), 5000);
  EXPECT_EQ(PortPicker(1).pick(ranges("1-65535"), [](uint16_t port) { return port == 65535; }),
            65535);
}

// Promise: With 4,096 ports taken, a free one is found at the first or second
// attempt.
TEST(PortPicker, FindsAPortBesideManyThatAreTaken) {
  PortPicker picker(1);
  int asked = 0;
  const auto isFree = [&](uint16_t port) {
    ++asked;
    return port >= 2000 + 4096 || port < 2000;
  };
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(picker.pick(ranges("1024-65535"), isFree));
  EXPECT_LT(asked, 1200);
}

TEST(PortPicker, ChoosesInAnotherOrderInEachRun) {
  std::set<uint16_t> first;
  for (int run = 0; run < 16; ++run) first.insert(*PortPicker().pick(ranges("1-65535"), allFree));
  EXPECT_GT(first.size(), 8U);
}

}  // namespace lumen::test
