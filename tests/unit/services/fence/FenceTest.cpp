#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/fence/Fence.h"
#include "services/nat/FakeKernel.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

using Texts = std::vector<std::string>;

ServiceDefinition service(const std::string& name, uid_t user,
                          std::optional<NetworkGrant> network) {
  ServiceDefinition definition;
  definition.name = name;
  definition.user = user;
  definition.network = network;
  return definition;
}

Link link(uint32_t index, const std::string& name) {
  Link result;
  result.index = index;
  result.name = name;
  return result;
}

LinkAddress address(uint8_t third) {
  return {.address = {192, 168, third, 1}, .network = {{192, 168, third, 0}, 24}, .broadcast = {}};
}

/// A fence around two services, with br-lan as the internal interface once it is there.
class FenceTest : public testing::Test {
 protected:
  void opens() {
    fence_ = std::make_unique<Fence>(kernel_, services_,
                                     std::vector{etc_.file("own"), etc_.file("resolv.conf")});
    ASSERT_EQ(whyNot(fence_->open()), "");
    (void)kernel_.takeTexts();
  }

  void hasLan() {
    fence_->internalNames({"br-lan"});
    fence_->tablesRead({.links = {{2, link(2, "br-lan")}, {3, link(3, "wan0")}},
                        .addresses = {{2, {address(88)}}, {3, {address(45)}}}});
    EXPECT_EQ(kernel_.takeTexts(), (Texts{fence::grantIpv6Internal({"br-lan"}),
                                          fence::grantInternal({{"br-lan", {network(88)}}})}));
  }

  static Ipv4Network network(uint8_t third) { return {{192, 168, third, 0}, 24}; }

  lm::test::ManualClock clock_;
  lm::EventLoop loop_{clock_};
  lm::test::TempDir etc_;
  test::FakeNftables kernel_;
  std::vector<ServiceDefinition> services_ = {service("resolver", 201, NetworkGrant::nameServers),
                                              service("upnp", 200, NetworkGrant::internal)};
  std::unique_ptr<Fence> fence_;
};

TEST_F(FenceTest, StandsBeforeAnythingIsGranted) {
  const fence::Users users = {{200, {NetworkGrant::internal}}, {201, {NetworkGrant::nameServers}}};
  const NameServers local = {.ipv4 = {{127, 0, 0, 1}}, .ipv6 = {}};
  Fence fence(kernel_, services_, {etc_.file("resolv.conf")});
  fence.internalNames({"br-lan"});
  EXPECT_EQ(kernel_.texts, Texts{});
  EXPECT_EQ(whyNot(fence.open()), "");
  EXPECT_EQ(kernel_.texts,
            (Texts{fence::makeIpv4Table(users), fence::makeIpv6Table(users),
                   fence::grantIpv6Internal({"br-lan"}), fence::grantNameServers(local),
                   fence::grantIpv6NameServers(local)}));
}

TEST_F(FenceTest, SaysWhyItCannotStand) {
  const fence::Users none;
  Fence fence(kernel_, {}, {});
  kernel_.refuses(fence::makeIpv6Table(none), "Error: no IPv6\nmore");
  EXPECT_EQ(whyNot(fence.open()), "IPv6: Error: no IPv6");
  kernel_.refuses(fence::makeIpv4Table(none), "Error: File exists\nmore");
  EXPECT_EQ(whyNot(fence.open()), "Error: File exists");
}

TEST_F(FenceTest, FollowsTheAddressesOfInternalInterfaces) {
  opens();
  hasLan();
  fence_->addressAdded(3, address(46));
  fence_->addressAdded(2, address(88));
  EXPECT_EQ(kernel_.takeTexts(), Texts{}) << "nothing internal has changed";
  fence_->addressAdded(2, address(89));
  EXPECT_EQ(kernel_.takeTexts(),
            Texts{fence::grantInternal({{"br-lan", {network(88), network(89)}}})});
  fence_->addressRemoved(2, address(88));
  EXPECT_EQ(kernel_.takeTexts(), Texts{fence::grantInternal({{"br-lan", {network(89)}}})});
  fence_->linkGone(2);
  EXPECT_EQ(kernel_.takeTexts(), Texts{fence::grantInternal({})});
}

TEST_F(FenceTest, FollowsNamesAndRoles) {
  opens();
  hasLan();
  fence_->internalNames({"br-lan", "wan0"});
  EXPECT_EQ(kernel_.takeTexts(),
            (Texts{fence::grantInternal({{"br-lan", {network(88)}}, {"wan0", {network(45)}}}),
                   fence::grantIpv6Internal({"br-lan", "wan0"})}));
  fence_->linkChanged(link(3, "wan1"));
  EXPECT_EQ(kernel_.takeTexts(), Texts{fence::grantInternal({{"br-lan", {network(88)}}})});
  fence_->internalNames({});
  EXPECT_EQ(kernel_.takeTexts(), (Texts{fence::grantInternal({}), fence::grantIpv6Internal({})}));
}

TEST_F(FenceTest, ReadsTheFirstFileOfNameServersThatThereIs) {
  opens();
  fence_->readNameServers();
  EXPECT_EQ(kernel_.takeTexts(), Texts{}) << "nothing has changed";
  etc_.write("resolv.conf", "nameserver 9.9.9.9\n");
  fence_->readNameServers();
  const NameServers one = {.ipv4 = {{9, 9, 9, 9}}, .ipv6 = {}};
  EXPECT_EQ(kernel_.takeTexts(),
            (Texts{fence::grantNameServers(one), fence::grantIpv6NameServers(one)}));
  etc_.write("own", "nameserver 2001:db8::1\n");
  fence_->readNameServers();
  const NameServers own = {.ipv4 = {}, .ipv6 = {"2001:db8::1"}};
  EXPECT_EQ(kernel_.takeTexts(),
            (Texts{fence::grantNameServers(own), fence::grantIpv6NameServers(own)}));
}

// Promise: A change of the fence that the kernel refuses is logged and tried again a
// second later; what was granted before stays.
TEST_F(FenceTest, TriesAgainWhatTheKernelRefused) {
  opens();
  hasLan();
  const std::string both = fence::grantInternal({{"br-lan", {network(88), network(89)}}});
  kernel_.refuses(both, "Error: Out of memory\n");
  const lm::test::LogCapture log;
  fence_->addressAdded(2, address(89));
  EXPECT_EQ(log.text(), "fence: the kernel refused a change: Error: Out of memory\n");
  EXPECT_EQ(kernel_.takeTexts(), Texts{both});
  kernel_.prints(both, "");
  clock_.advance(1s);
  loop_.turn(0ms);
  EXPECT_EQ(kernel_.takeTexts(), Texts{both});
  clock_.advance(1s);
  loop_.turn(0ms);
  EXPECT_EQ(kernel_.takeTexts(), Texts{});
}

// Promise: Services that run as one user may each send where one of them may, since
// the kernel tells only users apart; the log says so at the start.
TEST_F(FenceTest, SaysWhichServicesShareAUser) {
  services_.push_back(service("probe", 200, NetworkGrant::none));
  services_.push_back(service("other", 300, std::nullopt));
  services_.push_back(service("same", 201, NetworkGrant::nameServers));
  const lm::test::LogCapture log;
  opens();
  EXPECT_EQ(log.text(),
            "other: its service file has no \"network\", it may send no packets\n"
            "fence: upnp, probe share user 200: each may send where one of them may\n");
}

// Promise: At most 256 networks of internal interfaces are reached, and none of an
// interface with a blank, a quotation mark, a backslash or a star in its name; the log says so.
TEST_F(FenceTest, SaysWhatItLeavesOut) {
  opens();
  fence_->internalNames({"br-lan", "br*"});
  EXPECT_EQ(kernel_.takeTexts(), Texts{fence::grantIpv6Internal({"br-lan"})});
  LinkSnapshot all;
  all.links = {{2, link(2, "br-lan")}, {3, link(3, "br*")}};
  all.addresses[3] = {address(3)};
  for (int third = 0; third < 255; ++third) {
    all.addresses[2].insert(address(static_cast<uint8_t>(third)));
  }
  const lm::test::LogCapture log;
  fence_->tablesRead(all);
  fence_->linkChanged(link(3, "br*"));
  EXPECT_EQ(log.text(), "fence: br* is no name for nftables: its hosts are not reached\n");
  (void)kernel_.takeTexts();
  fence_->addressAdded(2,
                       {.address = {10, 0, 0, 1}, .network = {{10, 0, 0, 0}, 8}, .broadcast = {}});
  EXPECT_EQ(kernel_.takeTexts().size(), 1U);
  fence_->addressAdded(2, address(255));
  EXPECT_EQ(kernel_.takeTexts().size(), 0U);
  EXPECT_NE(log.text().find("fence: hosts of more than 256 internal networks are not reached\n"),
            std::string::npos);
}

}  // namespace
}  // namespace lumen
