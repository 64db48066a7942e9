#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "lumen/services/resolver/LateAddresses.h"
#include "support/ManualClock.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

class LateAddressesTest : public testing::Test {
 protected:
  static Ipv4Address address(uint32_t number) {
    return Ipv4Address::fromNumber(0x0a000000 + number);
  }

  lm::test::ManualClock clock_;
  LateAddresses late_{clock_};
};

// Also proves [resolver-late].
TEST_F(LateAddressesTest, KeepsAnAddressForAMinute) {
  late_.remember("player.lan", address(7));
  clock_.advance(59'999ms);
  EXPECT_EQ(late_.find("player.lan"), address(7));
  EXPECT_FALSE(late_.find("other.lan"));
  late_.remember("player.lan", address(8));
  EXPECT_EQ(late_.find("player.lan"), address(8));
  clock_.advance(60s);
  EXPECT_FALSE(late_.find("player.lan"));
}

// Promise: 128 addresses that came late are kept; the oldest is forgotten when one more comes.
TEST_F(LateAddressesTest, ForgetsTheOldestWhenThereAreTooMany) {
  for (uint32_t i = 0; i <= 128; ++i) late_.remember("host" + std::to_string(i), address(i));
  EXPECT_EQ(late_.size(), 128U);
  EXPECT_FALSE(late_.find("host0"));
  EXPECT_EQ(late_.find("host1"), address(1));
  clock_.advance(60s);
  late_.remember("player.lan", address(7));
  EXPECT_EQ(late_.size(), 1U);
}

}  // namespace
}  // namespace lumen
