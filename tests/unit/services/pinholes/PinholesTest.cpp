// The pinhole table on a recorded kernel and a clock that the test moves.

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/pinholes/Pinholes.h"
#include "platform/Keys.h"
#include "services/pinholes/FakeIpv6Flows.h"
#include "services/pinholes/FakeSet.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lumen::test {

namespace {

using namespace std::chrono_literals;
using lm::pinholes::End;
using lm::pinholes::Refusal;
using Texts = std::vector<std::string>;

struct Wish {
  std::string host = "2001:db8:1::10";
  uint32_t protocol = 6;
  uint32_t port = 8080;
  uint32_t lease = 600;
  std::string remotes{};
};

struct FakeForwarding : Ipv6Forwarding {
  bool isOn() override { return on; }
  bool on = true;
};

/// Keeps the records that were notified, with the connection of an owner that was notified too.
struct News : Notifier {
  struct One {
    lm::pinholes::Record record;
    bool removed = false;
    std::optional<uint64_t> owner;
  };
  void notify(uint32_t command, const std::vector<uint32_t>& source,
              const lm::message& fields) override {
    keep(command, source, fields, std::nullopt);
  }
  void notifyWithOwner(uint64_t owner, uint32_t command, const std::vector<uint32_t>& source,
                       const lm::message& fields) override {
    keep(command, source, fields, owner);
  }
  void keep(uint32_t command, const std::vector<uint32_t>& source, const lm::message& fields,
            std::optional<uint64_t> owner) {
    EXPECT_EQ(command, lm::cmd::changed);
    EXPECT_EQ(source, (std::vector<uint32_t>{20, 7}));
    for (const lm::message& m : fields.get_message_array_ref(lm::key::records)) {
      all.push_back({lm::pinholes::readRecord(m), m.get_u32(lm::key::removed) != 0, owner});
    }
  }
  std::vector<One> all;
};

/// The events that were recorded: "opened pcp/104 tcp 8080 of 2001:db8:1::10: why".
struct Events : Notifier {
  void notify(uint32_t /*command*/, const std::vector<uint32_t>& source,
              const lm::message& fields) override {
    EXPECT_EQ(source, (std::vector<uint32_t>{20, 6}));
    constexpr const char* words[] = {"?", "opened", "changed", "closed", "refused"};
    for (const lm::message& m : fields.get_message_array_ref(lm::key::records)) {
      const lm::nat::LogRecord event = lm::nat::readLogRecord(m);
      texts.push_back(std::string(words[event.event]) + " " + event.owner + "/" +
                      std::to_string(event.user) + " " + (event.protocol == 6 ? "tcp " : "udp ") +
                      std::to_string(event.port) + " of " + event.host +
                      (event.reason.empty() ? "" : ": " + event.reason));
    }
  }
  void notifyWithOwner(uint64_t /*owner*/, uint32_t /*command*/,
                       const std::vector<uint32_t>& /*source*/,
                       const lm::message& /*fields*/) override {}
  Texts take() { return std::exchange(texts, {}); }
  Texts texts;
};

Ipv6LinkAddress held(const std::string& address) {
  const Ipv6Address parsed = Ipv6Address::parse(address).value();
  return {parsed, Ipv6Network(parsed, 64)};
}

class PinholesTest : public testing::Test {
 protected:
  PinholesTest() {
    EXPECT_EQ(whyNot(policies.load()), "");
    networks.internalNames({"br-lan"});
    networks.tablesRead({.links = {{2, {.index = 2, .name = "br-lan"}}},
                         .addresses = {},
                         .ipv6Addresses = {{2, {held("2001:db8:1::1"), held("fd00::1")}}}});
    directory.write("rules.nft", "");
    kernel.prints("list table ip6 lumen", installedTable);
    pinholes.begin(directory.file("rules.nft"));
    kernel.takeTexts();
    passes(0ms);
    flows.finishSweep();
    passes(100ms);
  }

  lm::message asks(const Caller& caller, uint32_t command, const lm::message& request) {
    return pinholes.handle(caller, command, request);
  }
  static lm::message requestFor(const Wish& wish) {
    lm::message request;
    lm::pinholes::write(request, lm::pinholes::Pinhole{wish.host, wish.protocol, wish.port,
                                                       wish.lease, wish.remotes});
    return request;
  }
  uint32_t opens(const Wish& wish) { return opensAs(pcp, wish); }
  uint32_t opensAs(const Caller& caller, const Wish& wish) {
    const lm::message reply = asks(caller, lm::cmd::addObject, requestFor(wish));
    EXPECT_EQ(lm::getError(reply), "");
    return reply.get_u32(lm::key::objectId);
  }
  /// So many pinholes in all.
  void allows(uint32_t most) {
    lm::message policy;
    policy.insert_u32(lm::nat::key::maxRules, most);
    EXPECT_EQ(whyNot(policies.write(policy)), "");
  }
  /// Why, with the number for programs: "3: port 80 is not allowed by the policy".
  std::string refused(const Wish& wish) { return refusedAs(pcp, wish); }
  std::string refusedAs(const Caller& caller, const Wish& wish) {
    return textOf(asks(caller, lm::cmd::addObject, requestFor(wish)));
  }
  static std::string textOf(const lm::message& reply) {
    if (!lm::isError(reply)) return "";
    return std::to_string(reply.get_u32(lm::pinholes::key::refusal)) + ": " + lm::getError(reply);
  }
  std::string renews(const Caller& caller, uint32_t id, uint32_t lease,
                     const std::optional<std::string>& remotes = std::nullopt) {
    lm::message request;
    request.insert_u32(lm::key::objectId, id);
    request.insert_u32(lm::pinholes::key::lease, lease);
    if (remotes) request.insert_string(lm::pinholes::key::remotes, *remotes);
    return textOf(asks(caller, lm::cmd::setObject, request));
  }
  std::string removes(const Caller& caller, uint32_t id) {
    lm::message request;
    request.insert_u32(lm::key::objectId, id);
    return textOf(asks(caller, lm::cmd::removeObject, request));
  }
  std::vector<lm::pinholes::Record> lists() {
    std::vector<lm::pinholes::Record> all;
    const lm::message page = asks(admin, lm::cmd::list, {});
    EXPECT_EQ(lm::getError(page), "");
    for (const lm::message& m : page.get_message_array_ref(lm::key::records)) {
      all.push_back(lm::pinholes::readRecord(m));
    }
    return all;
  }
  std::string problem() {
    return asks(admin, lm::cmd::get, {}).get_string(lm::pinholes::key::problem);
  }
  static Ipv6Flow flowTo(const std::string& host, uint16_t port,
                         const std::string& source = "2001:db8:99::1") {
    return {*Ipv6Address::parse(source), *Ipv6Address::parse(host), port};
  }
  /// The kernel's flows are judged, the sweep being due.
  void sweepRuns() {
    passes(100ms);
    ASSERT_TRUE(flows.sweeping());
    flows.finishSweep();
  }
  void passes(std::chrono::milliseconds time) {
    clock.advance(time);
    loop.turn(0ms);
  }
  void givesUp() {
    const auto undo = pinholes.takeUndo();
    ASSERT_TRUE(static_cast<bool>(undo));
    undo();
  }

  static constexpr const char* adds =
      "add element ip6 lumen pinholes { 2001:db8:1::10 . tcp . 8080 }";
  static constexpr const char* deletes =
      "delete element ip6 lumen pinholes { 2001:db8:1::10 . tcp . 8080 }";

  Caller pcp{.connection = 7, .service = 41, .name = "pcp", .ports = PortGrant()};
  Caller other{.connection = 8, .service = 43, .name = "other", .ports = PortGrant()};
  Caller web{.connection = 10, .service = 42, .name = "web", .reads = true};
  Caller admin{.connection = 9, .service = 0, .name = "", .administrator = true};

  lm::test::ManualClock clock;
  lm::EventLoop loop{clock};
  lm::test::TempDir directory;
  FakeSet kernel;
  PinholeSet set{kernel};
  FakeIpv6Flows flows;
  Ipv6Networks networks;
  FakeForwarding forwarding;
  PolicyBook policies{directory.file("nat-policy"), directory.path()};
  News news;
  Events events;
  PortLog record{events};
  Pinholes pinholes{set, flows, networks, forwarding, policies, record, news, clock};
};

}  // namespace

// Promise: A pinhole is listed with its host, what is left of its lease, and the service
// that opened it; it ends with its lease, and its owner is notified.
TEST_F(PinholesTest, OpenAPortOfAHostUntilTheLeaseEnds) {
  const uint32_t id = opens({});
  EXPECT_EQ(kernel.takeTexts(), Texts{adds});
  passes(10s);
  EXPECT_EQ(
      lists(),
      std::vector({lm::pinholes::Record{
          .pinhole = {"2001:db8:1::10", 6, 8080, 590}, .id = id, .owner = "pcp", .seconds = 10}}));
  passes(589'999ms);
  EXPECT_EQ(kernel.takeTexts(), Texts{});
  news.all.clear();
  passes(20ms);
  EXPECT_EQ(kernel.takeTexts(), Texts{deletes});
  EXPECT_TRUE(lists().empty());
  ASSERT_EQ(news.all.size(), 1U);
  EXPECT_TRUE(news.all[0].removed);
  EXPECT_EQ(news.all[0].owner, 7U);
  EXPECT_EQ(news.all[0].record.id, id);
  EXPECT_EQ(news.all[0].record.ended, End::lease);
  EXPECT_NE(opens({}), id) << "an id is not used twice";
}

TEST_F(PinholesTest, RenewALeaseWithoutTheKernel) {
  const uint32_t id = opens({});
  kernel.takeTexts();
  passes(500s);
  EXPECT_EQ(renews(pcp, id, 300), "");
  EXPECT_EQ(lists().at(0).pinhole.lease, 300U);
  passes(299s);
  EXPECT_EQ(kernel.takeTexts(), Texts{});
  EXPECT_EQ(renews(other, id, 300), "1: not permitted");
  EXPECT_EQ(renews(pcp, id, 0), "1: a pinhole must have a lease of at least one second");
  EXPECT_EQ(renews(pcp, id + 1, 300), "1: no such object");
  passes(2s);
  EXPECT_EQ(kernel.takeTexts(), Texts{deletes});
}

TEST_F(PinholesTest, AreRemovedByTheirOwnerAndByAdministrators) {
  const uint32_t first = opens({});
  const uint32_t second = opens({.port = 8081});
  EXPECT_EQ(removes(other, first), "1: not permitted");
  news.all.clear();
  EXPECT_EQ(removes(pcp, first), "");
  EXPECT_EQ(news.all.at(0).owner, std::nullopt) << "it knows";
  EXPECT_EQ(removes(admin, second), "");
  EXPECT_EQ(news.all.at(1).owner, 7U);
  EXPECT_EQ(news.all.at(1).record.ended, End::administrator);
  EXPECT_EQ(removes(pcp, first), "1: no such object");
  EXPECT_TRUE(lists().empty());
}

// Promise [pinhole-owner]: When the program that opened pinholes ends, they are closed, in one
// transaction.
TEST_F(PinholesTest, EndWithTheConnectionThatOpenedThem) {
  opens({});
  opens({.protocol = 17});
  opensAs(other, {.port = 9000});
  kernel.takeTexts();
  pinholes.connectionEnded(pcp.connection);
  EXPECT_EQ(kernel.takeTexts(),
            Texts{"delete element ip6 lumen pinholes { 2001:db8:1::10 . tcp . 8080, "
                  "2001:db8:1::10 . udp . 8080 }"});
  EXPECT_EQ(lists().size(), 1U);
}

// Promise [pinhole-network]: When the network of an internal interface goes, its pinholes go, and
// their owner is notified.
TEST_F(PinholesTest, EndWithTheNetworkOfTheirHost) {
  opens({});
  opens({.host = "fd00::10"});
  kernel.takeTexts();
  news.all.clear();
  networks.ipv6AddressRemoved(2, held("2001:db8:1::1"));
  EXPECT_EQ(kernel.takeTexts(), Texts{deletes});
  ASSERT_EQ(news.all.size(), 1U);
  EXPECT_EQ(news.all[0].record.ended, End::addressGone);
  EXPECT_EQ(news.all[0].owner, 7U);
  EXPECT_EQ(lists().size(), 1U);
  networks.internalNames({});
  EXPECT_TRUE(lists().empty());
}

TEST_F(PinholesTest, EndWhenTheRouterTakesTheAddressOfTheirHost) {
  opens({});
  networks.ipv6AddressAdded(2, held("2001:db8:1::10"));
  EXPECT_TRUE(lists().empty());
}

// Promise [pinhole-flows]: When a UDP pinhole ends, its flows end, after the reply; those of other
// pinholes continue.
TEST_F(PinholesTest, EndTheirUdpFlowsOffTheReplyPath) {
  const uint32_t id = opens({.protocol = 17});
  opens({.protocol = 17, .port = 9000, .lease = 700});
  opens({.port = 8081});
  flows.flows = {flowTo("2001:db8:1::10", 8080), flowTo("2001:db8:1::10", 9000)};
  EXPECT_TRUE(pinholes.flowsEnded());
  EXPECT_EQ(removes(pcp, id), "");
  EXPECT_FALSE(pinholes.flowsEnded());
  EXPECT_FALSE(flows.sweeping()) << "not before the reply";
  sweepRuns();
  EXPECT_EQ(flows.labels.back(), 125U);
  EXPECT_EQ(flows.flows, std::vector{flowTo("2001:db8:1::10", 9000)});
  EXPECT_TRUE(pinholes.flowsEnded());
  passes(800s);
  sweepRuns();
  EXPECT_TRUE(flows.flows.empty()) << "the lease was over";
  EXPECT_TRUE(pinholes.flowsEnded());
}

// Also proves [pinhole-flows].
TEST_F(PinholesTest, EndNoFlowsOfTcp) {
  const uint32_t id = opens({});
  EXPECT_EQ(removes(pcp, id), "");
  EXPECT_TRUE(pinholes.flowsEnded());
}

// Promise: The UDP flows through pinholes of a lumend that was killed are ended by the next one.
TEST_F(PinholesTest, EndTheFlowsOfAnEarlierLumend) {
  flows.flows = {flowTo("2001:db8:1::10", 8080)};
  pinholes.begin(directory.file("rules.nft"));
  sweepRuns();
  EXPECT_TRUE(flows.flows.empty());
}

TEST_F(PinholesTest, EndWithTheNextSweepWhatAnEarlierOneDidNotReach) {
  const uint32_t id = opens({.protocol = 17});
  opens({.protocol = 17, .port = 9000});
  flows.flows = {flowTo("2001:db8:1::10", 8080)};
  EXPECT_EQ(removes(pcp, id), "");
  passes(100ms);
  flows.failSweep();
  EXPECT_EQ(flows.flows.size(), 1U);
  pinholes.connectionEnded(pcp.connection);
  sweepRuns();
  EXPECT_TRUE(flows.flows.empty());
}

// Promise [pinhole-remotes]: A pinhole for some remote networks is an element for each of them;
// they are listed, can be replaced with the lease, and flows from elsewhere end then.
TEST_F(PinholesTest, AreForTheirRemoteNetworksAlone) {
  const std::string filtered = " element ip6 lumen filtered { 2001:db8:1::10 . udp . 8080 . ";
  const std::string office = "2001:db8:a::-2001:db8:a:ffff:ffff:ffff:ffff:ffff";
  const std::string home = "2001:db8:b::1-2001:db8:b::1";
  const uint32_t id =
      opens({.protocol = 17, .remotes = "2001:db8:b::1 2001:db8:a::/48 2001:db8:a:b::/64"});
  EXPECT_EQ(kernel.takeTexts(),
            Texts{"add" + filtered + office + ", 2001:db8:1::10 . udp . 8080 . " + home + " }"});
  EXPECT_EQ(lists().at(0).pinhole.remotes, "2001:db8:a::/48 2001:db8:b::1/128");
  passes(500s);
  EXPECT_EQ(renews(pcp, id, 600), "");
  EXPECT_EQ(kernel.takeTexts(), Texts{}) << "they stay";
  flows.flows = {flowTo("2001:db8:1::10", 8080, "2001:db8:a::1"),
                 flowTo("2001:db8:1::10", 8080, "2001:db8:b::1")};

  EXPECT_EQ(renews(pcp, id, 700, "2001:db8:b::1"), "");
  EXPECT_EQ(kernel.takeTexts(),
            Texts{"delete" + filtered + office + ", 2001:db8:1::10 . udp . 8080 . " + home +
                  " }add" + filtered + home + " }"});
  EXPECT_EQ(lists().at(0).pinhole.remotes, "2001:db8:b::1/128");
  EXPECT_EQ(lists().at(0).pinhole.lease, 700U);
  sweepRuns();
  EXPECT_EQ(flows.flows, std::vector{flowTo("2001:db8:1::10", 8080, "2001:db8:b::1")});
  givesUp();
  EXPECT_EQ(lists().at(0).pinhole.remotes, "2001:db8:a::/48 2001:db8:b::1/128");
  EXPECT_EQ(lists().at(0).pinhole.lease, 600U);
  kernel.takeTexts();

  EXPECT_EQ(renews(pcp, id, 600, ""), "");
  EXPECT_EQ(kernel.takeTexts(),
            Texts{"delete" + filtered + office + ", 2001:db8:1::10 . udp . 8080 . " + home +
                  " }add element ip6 lumen pinholes { 2001:db8:1::10 . udp . 8080 }"});
  EXPECT_EQ(lists().at(0).pinhole.remotes, "");
}

// Promise: All pinholes together have at most 1,024 remote networks, since each change costs more
// with more of them.
TEST_F(PinholesTest, HaveNoMoreRemoteNetworksThanTheKernelChangesFast) {
  const std::string eight = "1::/16 2::/16 3::/16 4::/16 5::/16 6::/16 7::/16 8::/16";
  const std::string why = "4: all pinholes together have at most 1024 remote networks";
  uint32_t id = 0;
  const std::string another = "2001:db8:1::11";
  for (uint32_t port = 10000; port < 10128; ++port) id = opens({.port = port, .remotes = eight});
  EXPECT_EQ(refused({.host = another, .remotes = "1::/16"}), why);
  opens({.host = another, .port = 9000});
  EXPECT_EQ(renews(pcp, id, 600, eight), "");
  EXPECT_EQ(renews(pcp, id, 600, "1::/16"), "");
  const uint32_t seven =
      opens({.host = another, .remotes = "1::/16 2::/16 3::/16 4::/16 5::/16 6::/16 7::/16"});
  EXPECT_EQ(renews(pcp, id, 600, "1::/16 2::/16"), why);
  EXPECT_EQ(removes(pcp, seven), "");
  EXPECT_EQ(renews(pcp, id, 600, eight), "");
  EXPECT_EQ(refused({.host = another, .remotes = "1::/16"}), why);
}

TEST_F(PinholesTest, WithAndWithoutRemoteNetworksEndInOneTransaction) {
  opens({});
  opens({.port = 8081, .remotes = "2001:db8:b::1"});
  kernel.takeTexts();
  pinholes.connectionEnded(pcp.connection);
  EXPECT_EQ(kernel.takeTexts(),
            Texts{"delete element ip6 lumen pinholes { 2001:db8:1::10 . tcp . 8080 }"
                  "delete element ip6 lumen filtered { 2001:db8:1::10 . tcp . 8081 . "
                  "2001:db8:b::1-2001:db8:b::1 }"});
}

TEST_F(PinholesTest, RefuseWhatAreNoRemoteNetworks) {
  const uint32_t id = opens({});
  kernel.takeTexts();
  struct Row {
    const char* remotes;
    const char* why;
  };
  for (const Row& row :
       {Row{"198.51.100.0/24", "1: the remote networks must be IPv6 networks with spaces between"},
        Row{"2001:db8::1,2001:db8::2",
            "1: the remote networks must be IPv6 networks with spaces between"},
        Row{"2001:db8::1 ::/0", "1: the prefix of a remote network must be from 1 to 128"},
        Row{"1::/16 2::/16 3::/16 4::/16 5::/16 6::/16 7::/16 8::/16 9::/16",
            "1: a pinhole has at most 8 remote networks"}}) {
    EXPECT_EQ(refused({.port = 8081, .remotes = row.remotes}), row.why);
    EXPECT_EQ(renews(pcp, id, 600, row.remotes), row.why);
  }
  EXPECT_EQ(kernel.takeTexts(), Texts{});
}

// Promise: With a pinhole-ruleset.nft that has no set `filtered`, a pinhole for some remote hosts
// is refused, and others are opened.
TEST_F(PinholesTest, AreForAnyRemoteHostWithAnOlderRuleset) {
  const auto possible = [this] {
    return asks(admin, lm::cmd::get, {}).get_bool(lm::pinholes::key::remotesPossible);
  };
  EXPECT_TRUE(possible());
  std::string older = installedTable;
  older.replace(older.find("filtered"), 8, "fenced");
  kernel.prints("list table ip6 lumen", older);
  pinholes.begin(directory.file("rules.nft"));
  EXPECT_FALSE(possible());
  const std::string why =
      "7: the pinhole ruleset file has no set \"filtered\" for pinholes that name remote networks";
  EXPECT_EQ(refused({.remotes = "2001:db8:b::1"}), why);
  const uint32_t id = opens({});
  EXPECT_EQ(renews(pcp, id, 600, "2001:db8:b::1"), why);
  EXPECT_EQ(renews(pcp, id, 600, ""), "");
}

TEST_F(PinholesTest, KeepTheirRemoteNetworksWhenTheKernelRefusesOthers) {
  const lm::test::LogCapture log;
  const uint32_t id = opens({});
  kernel.refuses(std::string(deletes) +
                     "add element ip6 lumen filtered { 2001:db8:1::10 . tcp . 8080 . "
                     "2001:db8:b::1-2001:db8:b::1 }",
                 "No space left on device");
  passes(100s);
  EXPECT_EQ(renews(pcp, id, 600, "2001:db8:b::1"),
            "1: the kernel refused it: No space left on device");
  EXPECT_EQ(lists().at(0).pinhole.remotes, "");
  EXPECT_EQ(lists().at(0).pinhole.lease, 500U);
}

// Also proves [pinhole-hosts].
TEST_F(PinholesTest, RefuseWhatIsNoInternalHost) {
  EXPECT_EQ(refused({.host = "2001:db8:1::1"}), "3: host 2001:db8:1::1 is this router");
  EXPECT_EQ(refused({.host = "2001:db8:2::1"}),
            "3: host 2001:db8:2::1 is in no network of an internal interface");
  EXPECT_EQ(refused({.host = "fe80::10"}),
            "3: host fe80::10 is in no network of an internal interface");
  EXPECT_EQ(refused({.host = "ff02::1"}),
            "3: host ff02::1 is in no network of an internal interface");
  EXPECT_EQ(kernel.takeTexts(), Texts{});
}

TEST_F(PinholesTest, RefuseWhatIsNoPinhole) {
  EXPECT_EQ(refused({.host = "192.168.88.10"}), "1: the host must be an IPv6 address");
  EXPECT_EQ(refused({.host = ""}), "1: the host must be an IPv6 address");
  EXPECT_EQ(refused({.protocol = 132}), "1: protocol must be 6 (TCP) or 17 (UDP)");
  EXPECT_EQ(refused({.protocol = 256 + 6}), "1: protocol must be 6 (TCP) or 17 (UDP)");
  EXPECT_EQ(refused({.port = 0}), "1: port must be from 1 to 65535");
  EXPECT_EQ(refused({.port = 65536 + 8080}), "1: port must be from 1 to 65535");
  EXPECT_EQ(refused({.lease = 0}), "1: a pinhole must have a lease of at least one second");
  lm::message request = requestFor({});
  request.insert_u32(0x08000099, 1);
  EXPECT_NE(textOf(asks(pcp, lm::cmd::addObject, request)), "") << "it may be a condition";
  EXPECT_EQ(kernel.takeTexts(), Texts{});
}

// Promise [pinhole-forwarding]: Where the router does not forward IPv6, no pinhole is opened.
TEST_F(PinholesTest, AreRefusedWhereTheRouterDoesNotForward) {
  EXPECT_EQ(problem(), "");
  forwarding.on = false;
  const std::string why = "this router does not forward IPv6: net.ipv6.conf.all.forwarding is 0";
  EXPECT_EQ(refused({}), "6: " + why);
  EXPECT_EQ(problem(), why);
  forwarding.on = true;
  opens({});
}

// Promise: Without `pinhole-ruleset.nft`, or with one that does not make the table,
// all else works, pinholes are refused, and the reason is logged.
TEST_F(PinholesTest, AreRefusedWithoutTheKernelsTable) {
  const std::string why = "no IPv6 pinholes: /nowhere: No such file or directory";
  lm::test::LogCapture log;
  pinholes.begin("/nowhere");
  EXPECT_EQ(log.text(), why + "\n");
  EXPECT_EQ(refused({}), "7: " + why);
  EXPECT_EQ(problem(), why);
  EXPECT_EQ(kernel.takeTexts(), Texts{});
}

TEST_F(PinholesTest, RefuseASecondOneOfTheSamePort) {
  opens({});
  EXPECT_EQ(refused({}), "2: tcp port 8080 of 2001:db8:1::10 is open already");
  EXPECT_EQ(refusedAs(other, {}), "2: tcp port 8080 of 2001:db8:1::10 is open already");
  opens({.host = "2001:db8:1::11"});
  opens({.protocol = 17});
}

// Promise: The policy's ports, hosts by interface and numbers, and the bounds of a
// service file, hold for pinholes as they do for open ports.
TEST_F(PinholesTest, FollowThePolicy) {
  EXPECT_EQ(refused({.port = 80}), "3: port 80 is not allowed by the policy");
  EXPECT_EQ(refused({.port = 3389}), "3: port 3389 is not allowed by the policy");
  lm::message policy;
  policy.insert_string(lm::nat::key::internalClients, "br-guest, 192.168.88.0/24");
  EXPECT_EQ(whyNot(policies.write(policy)), "");
  EXPECT_EQ(refused({}), "3: hosts of br-lan are not allowed by the policy");
  policy.insert_string(lm::nat::key::internalClients, "br-lan");
  policy.insert_u32(lm::nat::key::maxRulesPerClient, 1);
  policy.insert_u32(lm::nat::key::maxRules, 2);
  EXPECT_EQ(whyNot(policies.write(policy)), "");
  opens({});
  EXPECT_EQ(refused({.port = 8081}),
            "4: host 2001:db8:1::10 has all the pinholes that the policy allows it");
  const uint32_t second = opens({.host = "2001:db8:1::11"});
  EXPECT_EQ(refused({.host = "2001:db8:1::12"}),
            "4: there are as many pinholes as the policy allows");
  EXPECT_EQ(removes(pcp, second), "");
  opens({.host = "2001:db8:1::12"});
}

// Promise: A host with very many IPv6 addresses opens at most three quarters of all pinholes; the
// last quarter is kept for hosts of other internal interfaces.
TEST_F(PinholesTest, OfOneInterfaceLeaveAQuarterToTheOthers) {
  networks.internalNames({"br-lan", "br-guest"});
  networks.linkChanged({.index = 3, .name = "br-guest"});
  networks.ipv6AddressAdded(3, held("2001:db8:2::1"));
  allows(16);
  const auto lanHost = [](int number) { return "2001:db8:1::1:" + std::to_string(number); };
  std::vector<uint32_t> ids;
  for (int host = 0; host < 12; ++host) ids.push_back(opens({.host = lanHost(host)}));
  const std::string full =
      "4: hosts of br-lan have 12 pinholes, and the last 4 places are kept for those of other "
      "interfaces";
  EXPECT_EQ(refused({.host = lanHost(12)}), full);
  EXPECT_EQ(refused({.host = lanHost(0), .port = 8081}), full);
  for (uint32_t port = 1; port <= 4; ++port) {
    opens({.host = "2001:db8:2::10", .port = 8080 + port});
  }
  EXPECT_EQ(refused({.host = "2001:db8:2::11"}),
            "4: there are as many pinholes as the policy allows");
  // The place of one that ended is free, also after its end was undone.
  EXPECT_EQ(removes(pcp, ids[0]), "");
  givesUp();
  EXPECT_EQ(refused({.host = lanHost(12)}), "4: there are as many pinholes as the policy allows");
  EXPECT_EQ(removes(pcp, ids[0]), "");
  opens({.host = lanHost(12)});
}

// Promise: A quarter of the IPv6 pinholes of an internal interface is kept for hosts that have
// fewer than eight.
TEST_F(PinholesTest, OfOneHostLeaveAQuarterToTheOthers) {
  allows(16);
  for (uint32_t port = 1; port <= 8; ++port) opens({.port = 8080 + port});
  EXPECT_EQ(refused({}),
            "4: host 2001:db8:1::10 has 8 pinholes, and the last 4 places of br-lan are kept for "
            "hosts that have fewer than 8");
  for (uint32_t port = 1; port <= 4; ++port) {
    opens({.host = "2001:db8:1::11", .port = 8080 + port});
  }
}

TEST_F(PinholesTest, FollowTheServiceFile) {
  EXPECT_EQ(refusedAs(web, {}), "5: its service file does not say \"ports = yes\"");
  pcp.ports = PortGrant{.most = 1, .longestLease = 600s};
  EXPECT_EQ(refused({.lease = 601}),
            "5: the longest lease that its service file allows is 600 seconds");
  const uint32_t id = opens({.lease = 600});
  EXPECT_EQ(renews(pcp, id, 601),
            "5: the longest lease that its service file allows is 600 seconds");
  EXPECT_EQ(refused({.port = 8081}),
            "4: service pcp has all the pinholes that its file allows it, 1");
  opensAs(other, {.port = 8081, .lease = 86400});
}

// Promise: Only administrators and services that may read are shown the pinholes.
TEST_F(PinholesTest, AreShownToThoseWhoMayRead) {
  const uint32_t id = opens({});
  lm::message one;
  one.insert_u32(lm::key::objectId, id);
  for (const uint32_t command :
       {lm::cmd::list, lm::cmd::readAll, lm::cmd::readObject, lm::cmd::get}) {
    EXPECT_EQ(lm::getError(asks(pcp, command, one)), "not permitted");
    EXPECT_EQ(lm::getError(asks(web, command, one)), "");
  }
  EXPECT_EQ(lm::pinholes::readRecord(asks(web, lm::cmd::readObject, one)).id, id);
  EXPECT_EQ(lm::getError(asks(admin, lm::cmd::readObject, {})), "no such object");
  EXPECT_EQ(lm::getError(asks(admin, lm::cmd::set, {})), "unknown command");
}

// Promise: lumend records each port of an IPv6 host that is opened, closed or refused,
// with who did it and why.
TEST_F(PinholesTest, AreRecorded) {
  admin.user = 1000;
  opens({});
  const uint32_t udp = opens({.protocol = 17, .lease = 900});
  EXPECT_NE(refused({.port = 80}), "");
  EXPECT_EQ(renews(pcp, udp, 800), "");
  EXPECT_EQ(
      events.take(),
      (Texts{"opened pcp/0 tcp 8080 of 2001:db8:1::10", "opened pcp/0 udp 8080 of 2001:db8:1::10",
             "refused pcp/0 tcp 80 of 2001:db8:1::10: port 80 is not allowed by the policy"}));
  passes(601s);
  EXPECT_EQ(removes(admin, udp), "");
  EXPECT_EQ(events.take(), (Texts{"closed pcp/0 tcp 8080 of 2001:db8:1::10: the lease ended",
                                  "closed administrator/1000 udp 8080 of 2001:db8:1::10"}));
  opens({});
  networks.ipv6AddressRemoved(2, held("2001:db8:1::1"));
  opens({.host = "fd00::10"});
  pinholes.connectionEnded(pcp.connection);
  EXPECT_EQ(events.take(),
            (Texts{"opened pcp/0 tcp 8080 of 2001:db8:1::10",
                   "closed pcp/0 tcp 8080 of 2001:db8:1::10: its host is in no network of an "
                   "internal interface",
                   "opened pcp/0 tcp 8080 of fd00::10",
                   "closed pcp/0 tcp 8080 of fd00::10: the program that had it ended"}));
  opens({.host = "fd00::10"});
  givesUp();
  removes(pcp, opens({.host = "fd00::10"}));
  givesUp();
  EXPECT_EQ(events.take(),
            (Texts{"opened pcp/0 tcp 8080 of fd00::10",
                   "closed pcp/0 tcp 8080 of fd00::10: the request was given up",
                   "opened pcp/0 tcp 8080 of fd00::10", "closed pcp/0 tcp 8080 of fd00::10",
                   "opened pcp/0 tcp 8080 of fd00::10: the request was given up"}));
}

TEST_F(PinholesTest, StayClosedWhenTheAdministratorGivesUp) {
  const uint32_t id = opens({});
  EXPECT_TRUE(static_cast<bool>(pinholes.takeUndo()));
  EXPECT_EQ(removes(admin, id), "");
  EXPECT_FALSE(static_cast<bool>(pinholes.takeUndo())) << "its owner was told that it has ended";
}

TEST_F(PinholesTest, AreAsBeforeWhenTheRequesterGivesUp) {
  const uint32_t id = opens({});
  givesUp();
  EXPECT_TRUE(lists().empty());
  EXPECT_EQ(kernel.takeTexts(), (Texts{adds, deletes}));

  const uint32_t second = opens({});
  EXPECT_NE(second, id);
  EXPECT_EQ(renews(pcp, second, 1000), "");
  givesUp();
  EXPECT_EQ(lists().at(0).pinhole.lease, 600U);

  EXPECT_EQ(removes(pcp, second), "");
  kernel.takeTexts();
  givesUp();
  EXPECT_EQ(kernel.takeTexts(), Texts{adds});
  EXPECT_EQ(lists().at(0).id, second);
}

TEST_F(PinholesTest, ChangeNothingThatTheKernelRefuses) {
  const lm::test::LogCapture log;
  kernel.refuses(adds, "No space left on device");
  EXPECT_EQ(refused({}), "1: the kernel refused it: No space left on device");
  EXPECT_TRUE(lists().empty());
  kernel.refusesNothing();
  const uint32_t id = opens({});
  kernel.refuses(deletes, "No such file or directory");
  EXPECT_EQ(removes(pcp, id), "1: the kernel refused it: No such file or directory");
  EXPECT_EQ(lists().size(), 1U);
}

TEST_F(PinholesTest, AreTriedAgainWhenTheKernelKeepsOneOfThem) {
  const lm::test::LogCapture log;
  opens({});
  opens({.port = 8081});
  kernel.refuses(
      "delete element ip6 lumen pinholes { 2001:db8:1::10 . tcp . 8080, "
      "2001:db8:1::10 . tcp . 8081 }",
      "Device or resource busy");
  kernel.refuses(deletes, "Device or resource busy");
  passes(600s);
  ASSERT_EQ(lists().size(), 1U);
  EXPECT_EQ(lists()[0].pinhole.port, 8080U);
  kernel.refusesNothing();
  passes(10s);
  EXPECT_TRUE(lists().empty());
}

}  // namespace lumen::test
