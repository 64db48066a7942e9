// Pinholes in the real kernel, in a network namespace of each test's own. Needs root.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/pinholes/PinholeSet.h"
#include "lumen/services/system/netfilter/LibNftables.h"
#include "lumen/services/system/netfilter/NetlinkIpv6Flows.h"
#include "platform/Fd.h"
#include "support/WhyNot.h"

namespace lumen::test {
namespace {

class PinholeKernelTest : public testing::Test {
 protected:
  PinholeKernelTest() {
    EXPECT_EQ(unshare(CLONE_NEWNET), 0) << "needs root";
    nftables = std::make_unique<LibNftables>();
    set = std::make_unique<PinholeSet>(*nftables);
  }

  /// What another program sees.
  static std::string seen(const std::string& command) {
    LibNftables other;
    const Result<std::string> result = other.run(command);
    return result ? *result : result.why();
  }

  std::unique_ptr<LibNftables> nftables;
  std::unique_ptr<PinholeSet> set;
  const PinholeKey key{Ipv6Address::parse("2001:db8:1::10").value(), 6, 8080};
};

// Promise: The kernel refuses changes of the table of pinholes by other programs,
// and removes it when lumend ends.
TEST_F(PinholeKernelTest, HoldsAnElementForEachPinholeUntilItsProcessEnds) {
  ASSERT_EQ(whyNot(set->open(PINHOLE_RULESET_FILE)), "");
  EXPECT_EQ(whyNot(set->add({.key = key})), "");
  EXPECT_NE(seen("list set ip6 lumen pinholes").find("{ 2001:db8:1::10 . "), std::string::npos);
  EXPECT_EQ(whyNot(set->add({.key = {key.host, 17, 8080}})), "");
  EXPECT_NE(seen("delete table ip6 lumen").find("Operation not permitted"), std::string::npos);
  EXPECT_EQ(whyNot(set->remove({Pinhole{.key = key}, {.key = {key.host, 17, 8080}}})), "");
  EXPECT_EQ(seen("list set ip6 lumen pinholes").find("2001:db8"), std::string::npos);
  EXPECT_EQ(whyNot(set->remove({Pinhole{.key = key}})), "No such file or directory");
  nftables.reset();
  EXPECT_EQ(seen("list tables ip6"), "");
}

TEST_F(PinholeKernelTest, OpensNothingBesideATableThatIsThere) {
  ASSERT_TRUE(nftables->run("add table ip6 lumen").ok());
  EXPECT_EQ(whyNot(set->open(PINHOLE_RULESET_FILE)),
            "nftables table ip6 lumen exists already: another program made it");
}

/// Real packets from this machine to itself.
class PinholeFlowsTest : public PinholeKernelTest, protected Ipv6Flows::Sweeper {
 protected:
  // An address that is looked for elsewhere first cannot be used at once, on loopback neither.
  PinholeFlowsTest() {
    EXPECT_EQ(whyNot(set->open(PINHOLE_RULESET_FILE)), "");
    EXPECT_EQ(std::system("ip link set lo up && ip -6 addr add 2001:db8:1::10/128 dev lo nodad && "
                          "ip -6 addr add 2001:db8:9::1/128 dev lo nodad"),
              0);
  }

  /// A packet to a port of the host, from a socket of its own.
  void sends(int type, uint16_t port) {
    const lm::Fd client(socket(AF_INET6, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "2001:db8:9::1", &address.sin6_addr);
    EXPECT_EQ(bind(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    inet_pton(AF_INET6, "2001:db8:1::10", &address.sin6_addr);
    address.sin6_port = htons(port);
    const int connected =
        connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    EXPECT_TRUE(connected == 0 || type == SOCK_STREAM);
    EXPECT_TRUE(send(client.get(), "x", 1, MSG_NOSIGNAL) == 1 || type == SOCK_STREAM);
  }

  /// The ports of the flows that a sweep is offered; it ends those to `doomed`.
  std::set<uint16_t> sweeps(uint32_t label = 125) {
    offered.clear();
    done = false;
    flows.sweepUdp(label, *this);
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done && std::chrono::steady_clock::now() < limit) {
      loop.turn(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(done);
    return offered;
  }

  bool ends(const Ipv6Flow& flow) override {
    EXPECT_EQ(flow.source.text() + " to " + flow.destination.text(),
              "2001:db8:9::1 to 2001:db8:1::10");
    offered.insert(flow.port);
    return doomed.contains(flow.port);
  }
  void swept(bool complete) override {
    EXPECT_TRUE(complete);
    done = true;
  }

  lm::SystemClock clock;
  lm::EventLoop loop{clock};
  NetlinkIpv6Flows flows;
  std::set<uint16_t> offered;
  std::set<uint16_t> doomed;
  bool done = false;
};

// Promise: Of the kernel's flows only those of UDP with the label of pinholes are judged, and only
// those end that no pinhole admits.
TEST_F(PinholeFlowsTest, EndOneByOne) {
  ASSERT_EQ(set->label(), 125U);
  EXPECT_EQ(whyNot(set->add({.key = {key.host, 17, 5000}})), "");
  EXPECT_EQ(whyNot(set->add({.key = {key.host, 17, 5001}})), "");
  EXPECT_EQ(whyNot(set->add({.key = {key.host, 6, 5002}})), "");
  for (const uint16_t port : std::set<uint16_t>{5000, 5001, 5003}) sends(SOCK_DGRAM, port);
  sends(SOCK_STREAM, 5002);
  EXPECT_EQ(sweeps(), (std::set<uint16_t>{5000, 5001}));
  EXPECT_TRUE(sweeps(124).empty());
  EXPECT_TRUE(sweeps(61).empty());
  doomed = {5001};
  EXPECT_EQ(sweeps(), (std::set<uint16_t>{5000, 5001}));
  EXPECT_EQ(sweeps(), (std::set<uint16_t>{5000}));
}

// Promise: Only packets from a remote network of a pinhole get its label.
TEST_F(PinholeFlowsTest, BeginFromTheRemoteNetworksAlone) {
  ASSERT_TRUE(set->hasRemotes());
  const auto to = [this](uint16_t port, const std::string& remotes) {
    return Pinhole{.key = {key.host, 17, port}, .remotes = *parseIpv6Networks(remotes)};
  };
  EXPECT_EQ(whyNot(set->add(to(5000, "2001:db8:9::/64 2001:db8:a::1"))), "");
  EXPECT_EQ(whyNot(set->add(to(5001, "2001:db8:8::/64 2001:db8:9::2/127"))), "");
  EXPECT_NE(seen("list set ip6 lumen filtered").find(" . 5001 . 2001:db8:9::2/127"),
            std::string::npos)
      << seen("list set ip6 lumen filtered");
  for (const uint16_t port : std::set<uint16_t>{5000, 5001}) sends(SOCK_DGRAM, port);
  EXPECT_EQ(sweeps(), std::set<uint16_t>{5000});

  EXPECT_EQ(
      whyNot(set->change(to(5001, "2001:db8:8::/64 2001:db8:9::2/127"), to(5001, "2001:db8:9::1"))),
      "");
  sends(SOCK_DGRAM, 5001);
  EXPECT_EQ(sweeps(), (std::set<uint16_t>{5000, 5001}));
  EXPECT_EQ(whyNot(set->change(to(5001, "2001:db8:9::1"), to(5001, ""))), "");
  EXPECT_EQ(whyNot(set->remove({to(5000, "2001:db8:9::/64 2001:db8:a::1"), to(5001, "")})), "");
  EXPECT_EQ(seen("list table ip6 lumen").find("elements"), std::string::npos);
}

// Promise: lumend may end while flows of pinholes are being swept.
TEST_F(PinholeFlowsTest, AreLeftWhenTheSweepIsDestroyed) {
  NetlinkIpv6Flows shortLived;
  shortLived.sweepUdp(125, *this);
}

}  // namespace
}  // namespace lumen::test
