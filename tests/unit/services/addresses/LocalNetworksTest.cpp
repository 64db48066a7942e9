// What the NAT rules learn about this router's addresses and their networks.

#include <gtest/gtest.h>

#include <optional>

#include "lumen/services/addresses/AddressTable.h"
#include "services/interfaces/FakeLinks.h"
#include "services/interfaces/RecordingNotifier.h"
#include "support/Ipv4Text.h"

namespace lumen {
namespace {

constexpr uint32_t lan = 1;
constexpr uint32_t wan = 2;

class LocalNetworksTest : public testing::Test {
 protected:
  void has(uint32_t interface, const std::string& words, bool running = true) {
    table.add(interface, running, linkAddress(words));
  }
  std::optional<uint32_t> holderOf(const char* address) const {
    return table.interfaceOf(test::ip(address));
  }
  std::optional<uint32_t> towards(const char* host) const {
    return table.interfaceTowards(test::ip(host));
  }
  bool own(const char* address) const { return table.isOwn(test::ip(address)); }
  bool reserved(const char* address) const { return table.isReserved(test::ip(address)); }

  RecordingNotifier notifier;
  AddressTable table{notifier};
};

TEST_F(LocalNetworksTest, FindTheInterfaceThatHoldsAnAddress) {
  has(lan, "192.168.1.1/24");
  has(wan, "45.45.45.2/24");
  EXPECT_EQ(holderOf("45.45.45.2"), wan);
  EXPECT_EQ(holderOf("192.168.1.1"), lan);
  EXPECT_EQ(holderOf("45.45.45.3"), std::nullopt);
  EXPECT_EQ(holderOf("0.0.0.0"), std::nullopt);
}

// Promise: An address counts as the router's while its interface is not running, and until it is
// removed; of several interfaces with one address the lowest counts.
TEST_F(LocalNetworksTest, CountAnAddressWhoseInterfaceIsNotRunning) {
  has(wan, "45.45.45.2/24", false);
  EXPECT_EQ(holderOf("45.45.45.2"), wan);
  EXPECT_EQ(towards("45.45.45.1"), wan);
}

TEST_F(LocalNetworksTest, ForgetAnAddressThatWasRemoved) {
  has(wan, "45.45.45.2/24");
  table.remove(wan, linkAddress("45.45.45.2/24"));
  EXPECT_EQ(holderOf("45.45.45.2"), std::nullopt);
  EXPECT_EQ(towards("45.45.45.1"), std::nullopt);
}

TEST_F(LocalNetworksTest, NameTheLowestOfSeveralInterfacesWithOneAddress) {
  has(wan, "10.0.0.1/24");
  has(lan, "10.0.0.1/24");
  EXPECT_EQ(holderOf("10.0.0.1"), lan);
}

// Promise: A host is directly connected when it is in the network of one of the router's addresses,
// the longest prefix counting, or is the other end of a point-to-point link.
TEST_F(LocalNetworksTest, HoldTheHostsOfASubnet) {
  has(lan, "192.168.1.1/24");
  EXPECT_EQ(towards("192.168.1.2"), lan);
  EXPECT_EQ(towards("192.168.1.254"), lan);
  EXPECT_EQ(towards("192.168.2.2"), std::nullopt);
  EXPECT_EQ(towards("8.8.8.8"), std::nullopt);
}

// Promise: A network address, a broadcast address and the router's own addresses are not connected
// hosts.
TEST_F(LocalNetworksTest, DoNotHoldTheNetworkAddressAndTheBroadcastAddress) {
  has(lan, "192.168.1.1/24");
  EXPECT_EQ(towards("192.168.1.0"), std::nullopt);
  EXPECT_EQ(towards("192.168.1.255"), std::nullopt);
  EXPECT_TRUE(reserved("192.168.1.0"));
  EXPECT_TRUE(reserved("192.168.1.255"));
  EXPECT_FALSE(reserved("192.168.1.1"));
  EXPECT_FALSE(reserved("192.168.1.254"));
  EXPECT_FALSE(reserved("192.168.2.255"));
}

TEST_F(LocalNetworksTest, DoNotHoldABroadcastAddressOfAnotherForm) {
  LinkAddress address = linkAddress("192.168.1.1/24");
  address.broadcast = test::ip("192.168.1.127");
  table.add(lan, true, address);
  EXPECT_EQ(towards("192.168.1.127"), std::nullopt);
  EXPECT_EQ(towards("192.168.1.126"), lan);
  EXPECT_TRUE(reserved("192.168.1.127"));
}

TEST_F(LocalNetworksTest, DoNotHoldABroadcastAddressOutsideTheNetwork) {
  LinkAddress address = linkAddress("192.168.1.1/25");
  address.broadcast = test::ip("192.168.1.255");
  table.add(lan, true, address);
  has(wan, "192.168.0.1/16");
  EXPECT_EQ(towards("192.168.1.255"), std::nullopt);
  EXPECT_TRUE(reserved("192.168.1.255"));
}

TEST_F(LocalNetworksTest, DoNotHoldTheRoutersOwnAddresses) {
  has(lan, "192.168.1.1/24");
  has(lan, "192.168.1.2/24");
  EXPECT_EQ(towards("192.168.1.1"), std::nullopt);
  EXPECT_EQ(towards("192.168.1.2"), std::nullopt);
  EXPECT_TRUE(own("192.168.1.1"));
  EXPECT_FALSE(own("192.168.1.3"));
}

// Promise: An address of the loopback, and its whole network, counts as the router's, is not
// listed, and is no external address.
TEST_F(LocalNetworksTest, TreatLoopbackAddressesAsTheRouters) {
  has(lan, "192.168.1.1/24");
  table.addLoopback(linkAddress("192.168.1.53/32"));
  EXPECT_TRUE(own("192.168.1.53"));
  EXPECT_EQ(towards("192.168.1.53"), std::nullopt);
  EXPECT_EQ(holderOf("192.168.1.53"), std::nullopt) << "no port is opened on it";
  EXPECT_FALSE(own("192.168.1.54"));
  table.removeLoopback(linkAddress("192.168.1.53/32"));
  EXPECT_FALSE(own("192.168.1.53"));
  EXPECT_EQ(towards("192.168.1.53"), lan);
}

TEST_F(LocalNetworksTest, TreatAWholeNetworkOnTheLoopbackAsTheRouters) {
  table.addLoopback(linkAddress("10.9.0.1/24"));
  EXPECT_TRUE(own("10.9.0.0"));
  EXPECT_TRUE(own("10.9.0.77"));
  EXPECT_TRUE(own("10.9.0.255"));
  EXPECT_FALSE(own("10.9.1.1"));
  EXPECT_FALSE(reserved("10.9.0.255"));
}

TEST_F(LocalNetworksTest, HoldBothHostsOfANetworkOfTwo) {
  has(wan, "45.45.45.2/31");
  EXPECT_EQ(towards("45.45.45.3"), wan);
  EXPECT_EQ(towards("45.45.45.4"), std::nullopt);
}

TEST_F(LocalNetworksTest, HoldTwoHostsOfANetworkOfFour) {
  has(wan, "45.45.45.1/30");
  EXPECT_EQ(towards("45.45.45.0"), std::nullopt);
  EXPECT_EQ(towards("45.45.45.2"), wan);
  EXPECT_EQ(towards("45.45.45.3"), std::nullopt);
}

TEST_F(LocalNetworksTest, HoldNoHostBesideASingleAddress) {
  has(wan, "45.45.45.2/32");
  EXPECT_EQ(towards("45.45.45.2"), std::nullopt);
  EXPECT_EQ(towards("45.45.45.3"), std::nullopt);
}

TEST_F(LocalNetworksTest, HoldThePeerOfAPointToPointLinkAlone) {
  has(wan, "45.45.45.2 peer 46.46.46.1/32");
  EXPECT_EQ(towards("46.46.46.1"), wan);
  EXPECT_EQ(towards("45.45.45.1"), std::nullopt);
}

TEST_F(LocalNetworksTest, HoldTheHostsOfThePeersNetwork) {
  has(wan, "45.45.45.2 peer 46.46.46.1/24");
  EXPECT_EQ(towards("46.46.46.9"), wan);
  EXPECT_EQ(towards("46.46.46.255"), std::nullopt);
  EXPECT_EQ(towards("45.45.45.9"), std::nullopt);
}

TEST_F(LocalNetworksTest, PreferTheLongerPrefix) {
  has(lan, "10.0.0.1/8");
  has(wan, "10.1.0.1/16");
  EXPECT_EQ(towards("10.1.2.3"), wan);
  EXPECT_EQ(towards("10.2.2.3"), lan);
}

TEST_F(LocalNetworksTest, DoNotHoldABroadcastAddressThatAnotherNetworkTakesForAHost) {
  has(lan, "10.0.0.1/8");
  has(wan, "10.1.0.1/16");
  EXPECT_EQ(towards("10.1.255.255"), std::nullopt);
}

TEST_F(LocalNetworksTest, HoldAlmostEveryHostWhenThePrefixIsEmpty) {
  has(lan, "10.0.0.1/0");
  EXPECT_EQ(towards("8.8.8.8"), lan);
  EXPECT_EQ(towards("0.0.0.0"), std::nullopt);
  EXPECT_EQ(towards("255.255.255.255"), std::nullopt);
}

}  // namespace
}  // namespace lumen
