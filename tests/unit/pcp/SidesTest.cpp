#include <gtest/gtest.h>

#include "pcp/server/Sides.h"

namespace pcp {
namespace {

constexpr lumen::Ipv4Address gateway = {192, 168, 88, 1};
constexpr lumen::Ipv4Address outside = {45, 45, 45, 2};
constexpr lumen::Ipv4Address second = {46, 46, 46, 2};

lm::interfaces::Record interface(uint32_t id, const std::string& name, uint32_t role) {
  return {.id = id, .index = id + 10, .name = name, .displayName = name, .role = role};
}

lm::addresses::Record address(uint32_t id, uint32_t interface, lumen::Ipv4Address value,
                              bool disabled = false) {
  return {.id = id, .interface = interface, .address = value.bytes(), .disabled = disabled};
}

class SidesTest : public testing::Test {
 protected:
  std::vector<lm::interfaces::Record> interfaces = {
      interface(1, "wan0", lm::interfaces::roleExternal),
      interface(2, "br-lan", lm::interfaces::roleInternal), interface(3, "dmz", 0)};
  std::vector<lm::addresses::Record> addresses = {address(1, 1, outside), address(2, 2, gateway),
                                                  address(3, 3, {10, 0, 0, 1})};
};

TEST_F(SidesTest, RolesSayWhichSideAnInterfaceIsOn) {
  const Sides sides = sidesOf(interfaces, addresses, std::nullopt);
  EXPECT_EQ(sides.ipv4, (std::vector<Place>{{{"br-lan", 12}, {gateway}}}));
  EXPECT_EQ(sides.external, outside);
}

TEST_F(SidesTest, AnInterfaceThatDoesNotRunIsNoSide) {
  addresses = {address(1, 1, outside, true), address(2, 2, gateway, true)};
  const Sides sides = sidesOf(interfaces, addresses, outside);
  EXPECT_TRUE(sides.ipv4.empty());
  EXPECT_EQ(sides.external, std::nullopt);
}

TEST_F(SidesTest, AnInterfaceThatIsAwayIsNotServed) {
  interfaces[1].index = 0;
  EXPECT_TRUE(sidesOf(interfaces, addresses, std::nullopt).ipv4.empty());
}

// Promise: PCP is answered by IPv6 on each internal interface that runs, whatever IPv4 address it
// has.
TEST_F(SidesTest, AnInternalInterfaceThatRunsIsServedByIpv6) {
  const auto places = [&] { return sidesOf(interfaces, {}, std::nullopt).ipv6; };
  EXPECT_TRUE(places().empty());
  for (lm::interfaces::Record& one : interfaces) one.running = true;
  EXPECT_EQ(places(), (std::vector<Place>{{{"br-lan", 12}}}));
  interfaces[1].index = 0;
  EXPECT_TRUE(places().empty());
}

TEST_F(SidesTest, AllAddressesOfAnInternalInterfaceAreServed) {
  addresses.push_back(address(4, 2, {192, 168, 99, 1}));
  const Sides sides = sidesOf(interfaces, addresses, std::nullopt);
  EXPECT_EQ(sides.ipv4, (std::vector<Place>{{{"br-lan", 12}, {gateway, {192, 168, 99, 1}}}}));
}

// Promise: Of several external addresses NAT-PMP and PCP keep the one that they have, as long as it
// is there.
TEST_F(SidesTest, TheExternalAddressStaysAsLongAsItIsThere) {
  addresses.insert(addresses.begin(), address(9, 1, second));
  EXPECT_EQ(sidesOf(interfaces, addresses, std::nullopt).external, outside);
  EXPECT_EQ(sidesOf(interfaces, addresses, second).external, second);
  addresses.erase(addresses.begin());
  EXPECT_EQ(sidesOf(interfaces, addresses, second).external, outside);
  addresses.push_back(address(9, 1, second));
  EXPECT_EQ(sidesOf(interfaces, addresses, std::nullopt).external, outside);
  // An address of another side is none.
  EXPECT_EQ(sidesOf(interfaces, addresses, gateway).external, outside);
}

}  // namespace
}  // namespace pcp
