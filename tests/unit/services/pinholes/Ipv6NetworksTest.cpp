#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "lumen/services/pinholes/Ipv6Networks.h"

namespace lumen {
namespace {

Ipv6Address ip6(const std::string& text) { return Ipv6Address::parse(text).value(); }

Ipv6LinkAddress held(const std::string& address, unsigned prefix) {
  return {ip6(address), Ipv6Network(ip6(address), prefix)};
}

/// A router with wan0, index 1, and br-lan, index 2, which is internal.
class Ipv6NetworksTest : public testing::Test, private Ipv6Networks::Observer {
 protected:
  Ipv6NetworksTest() {
    networks.internalNames({"br-lan"});
    networks.tablesRead(
        {.links = {{1, {.index = 1, .name = "wan0"}}, {2, {.index = 2, .name = "br-lan"}}},
         .addresses = {},
         .ipv6Addresses = {{1, {held("2001:db8:ff::2", 64)}},
                           {2, {held("2001:db8:1::1", 64), held("fe80::1", 64)}}}});
    networks.setObserver(*this);
  }

  std::optional<std::string> interfaceOf(const std::string& host) {
    return networks.internalInterfaceOf(ip6(host));
  }

  void internalHostsChanged() override { ++changes; }

  Ipv6Networks networks;
  int changes = 0;
};

// Promise [pinhole-hosts]: Pinholes lead only to hosts in a network of an internal interface, never
// to the router itself, a link-local address, a multicast group or a network of another interface.
TEST_F(Ipv6NetworksTest, KnowWhichHostsAreInternal) {
  EXPECT_EQ(interfaceOf("2001:db8:1::10"), "br-lan");
  for (const char* other :
       {"2001:db8:1::1",   // the router
        "2001:db8:1::",    // every router there
        "2001:db8:ff::9",  // on the outside
        "2001:db8:ff::2", "2001:db8:2::10", "fe80::10", "ff02::1", "::1", "::", "fd00::10"}) {
    EXPECT_EQ(interfaceOf(other), std::nullopt) << other;
  }
}

TEST_F(Ipv6NetworksTest, TakeAPrivateNetworkThatIsThere) {
  networks.ipv6AddressAdded(2, held("fd00::1", 64));
  EXPECT_EQ(interfaceOf("fd00::10"), "br-lan");
  EXPECT_EQ(interfaceOf("fd00:0:0:1::10"), std::nullopt);
}

TEST_F(Ipv6NetworksTest, TakeBothHostsOfANetworkOfTwo) {
  networks.ipv6AddressAdded(2, held("2001:db8:3::1", 127));
  EXPECT_EQ(interfaceOf("2001:db8:3::"), "br-lan");
  EXPECT_EQ(interfaceOf("2001:db8:3::1"), std::nullopt);
}

TEST_F(Ipv6NetworksTest, FollowAddressesLinksAndRoles) {
  networks.ipv6AddressRemoved(2, held("2001:db8:1::1", 64));
  EXPECT_EQ(interfaceOf("2001:db8:1::10"), std::nullopt);
  networks.ipv6AddressAdded(2, held("2001:db8:1::1", 64));
  EXPECT_EQ(interfaceOf("2001:db8:1::10"), "br-lan");
  networks.internalNames({"wan0"});
  EXPECT_EQ(interfaceOf("2001:db8:1::10"), std::nullopt);
  EXPECT_EQ(interfaceOf("2001:db8:ff::9"), "wan0");
  networks.internalNames({"br-lan"});
  networks.linkChanged({.index = 2, .name = "br-old"});
  EXPECT_EQ(interfaceOf("2001:db8:1::10"), std::nullopt);
  networks.linkChanged({.index = 2, .name = "br-lan"});
  EXPECT_EQ(interfaceOf("2001:db8:1::10"), "br-lan");
  networks.linkGone(2);
  EXPECT_EQ(interfaceOf("2001:db8:1::10"), std::nullopt);
  EXPECT_EQ(changes, 7);
}

TEST_F(Ipv6NetworksTest, NotifyNothingThatIsKnownAlready) {
  networks.ipv6AddressAdded(2, held("2001:db8:1::1", 64));
  networks.ipv6AddressRemoved(2, held("2001:db8:9::1", 64));
  networks.linkChanged({.index = 2, .up = true, .name = "br-lan"});
  EXPECT_EQ(changes, 0);
}

}  // namespace
}  // namespace lumen
