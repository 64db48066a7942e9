// What the real kernel says about IPv6, in a network namespace of each test's own. Needs root.

#include <gtest/gtest.h>
#include <sched.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/system/netlink/Ipv6Forwarding.h"
#include "lumen/services/system/netlink/NetlinkLinks.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

/// Keeps the networks of IPv6 that the router reaches.
class Networks : public Links::Listener {
 public:
  void tablesRead(const LinkSnapshot& all) override {
    known.clear();
    for (const auto& [index, addresses] : all.ipv6Addresses) {
      for (const Ipv6LinkAddress& address : addresses) ipv6AddressAdded(index, address);
    }
  }
  void linkChanged(const Link& /*link*/) override {}
  void linkGone(uint32_t /*index*/) override {}
  void addressAdded(uint32_t /*index*/, const LinkAddress& /*address*/) override {}
  void addressRemoved(uint32_t /*index*/, const LinkAddress& /*address*/) override {}
  void ipv6AddressAdded(uint32_t /*index*/, const Ipv6LinkAddress& address) override {
    known.insert(address.address.text() + " in " + address.network.text());
  }
  void ipv6AddressRemoved(uint32_t /*index*/, const Ipv6LinkAddress& address) override {
    known.erase(address.address.text() + " in " + address.network.text());
  }

  std::set<std::string> known;
};

class Ipv6KernelTest : public testing::Test {
 protected:
  Ipv6KernelTest() { EXPECT_EQ(unshare(CLONE_NEWNET), 0) << "needs root"; }

  static void runs(const std::string& command) {
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
  }

  [[nodiscard]] bool waitFor(const std::function<bool()>& condition) {
    const auto end = clock.now() + 5s;
    while (!condition()) {
      if (clock.now() >= end) return false;
      loop.turn(50ms);
    }
    return true;
  }

  lm::SystemClock clock;
  lm::EventLoop loop{clock};
};

TEST_F(Ipv6KernelTest, FollowsTheAddressesOfLinks) {
  const std::string first = "2001:db8:1::1 in 2001:db8:1::/64";
  const std::string second = "fd00:2::1 in fd00:2::/48";
  runs("ip link add br-lan type bridge");
  runs("ip addr add 2001:db8:1::1/64 dev br-lan nodad");
  NetlinkLinks links;
  Networks networks;
  links.start(networks);
  EXPECT_TRUE(networks.known.contains(first));
  runs("ip addr add fd00:2::1/48 dev br-lan nodad");
  EXPECT_TRUE(waitFor([&] { return networks.known.contains(second); }));
  runs("ip addr del 2001:db8:1::1/64 dev br-lan");
  EXPECT_TRUE(waitFor([&] { return !networks.known.contains(first); }));
  runs("ip link del br-lan");
  EXPECT_TRUE(waitFor([&] { return networks.known.empty(); }));
}

TEST_F(Ipv6KernelTest, KnowsWhetherTheRouterForwards) {
  NetlinkIpv6Forwarding forwarding;
  runs("ip link add br-lan type bridge");
  runs("echo 0 > /proc/sys/net/ipv6/conf/all/forwarding");
  EXPECT_FALSE(forwarding.isOn());
  runs("echo 1 > /proc/sys/net/ipv6/conf/br-lan/forwarding");
  EXPECT_FALSE(forwarding.isOn()) << "one interface alone forwards nothing";
  runs("echo 1 > /proc/sys/net/ipv6/conf/all/forwarding");
  EXPECT_TRUE(forwarding.isOn());
}

}  // namespace
}  // namespace lumen
