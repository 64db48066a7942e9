#include "platform/wire/NatRules.h"
#include "services/nat/NatFixture.h"

namespace lumen::test {

namespace {

constexpr const char* noMap =
    "the NAT ruleset file has no map \"filtered\" for rules that name remote networks";

/// Rules that only some remote networks may use.
class RemoteNetworksTest : public NatFixture {
 protected:
  RemoteNetworksTest() { startsWith(wholeTable); }

  static lm::message narrowing(uint32_t id, const std::vector<const char*>& networks) {
    lm::message request = idOnly(id);
    insertRemotes(request, networks);
    return request;
  }
  /// "198.51.100.0/24 203.0.113.7/32", empty: from anywhere.
  std::string listedRemotes() {
    Ipv4Networks remotes;
    for (const auto& remote : lm::nat::readRule(lists().at(0)).remotes) {
      remotes.emplace_back(Ipv4Address::fromBytes(remote.address), remote.prefix);
    }
    return networksText(remotes);
  }
  static Flow from(const char* source, uint8_t protocol, const char* responder,
                   uint16_t responderPort) {
    return {.protocol = protocol,
            .source = ip(source),
            .destination = {ip("45.45.45.1"), 8080},
            .responder = {ip(responder), responderPort}};
  }
};

// Promise [remote-networks]: A rule can name up to eight remote networks: it is an element of the
// map `filtered` for each, and packets from elsewhere do not pass. Rules without cost what they
// did.
TEST_F(RemoteNetworksTest, AreElementsOfAMapOfTheirOwn) {
  opens({.from = {"203.0.113.7", "198.51.100.0/24"}});
  opens({.port = 8081});
  EXPECT_EQ(kernelTexts(),
            (Texts{"add element ip lumen filtered { "
                   "45.45.45.1 . tcp . 8080 . 198.51.100.0-198.51.100.255 : 192.168.88.10 . 80, "
                   "45.45.45.1 . tcp . 8080 . 203.0.113.7-203.0.113.7 : 192.168.88.10 . 80 }",
                   "add element ip lumen forwards "
                   "{ 45.45.45.1 . tcp . 8081 : 192.168.88.10 . 80 }"}));
  EXPECT_EQ(listedRemotes(), "198.51.100.0/24 203.0.113.7/32");
}

// Also proves [remote-networks].
TEST_F(RemoteNetworksTest, ThatLieInAnotherOneAreLeftOut) {
  opens({.from = {"10.1.0.0/16", "10.0.0.0/8", "10.0.0.0/16", "10.0.0.0/8", "11.0.0.1"}});
  EXPECT_EQ(listedRemotes(), "10.0.0.0/8 11.0.0.1/32");
}

// Promise: A port has one holder, whichever remote networks it and another one name.
TEST_F(RemoteNetworksTest, DoNotShareAPort) {
  opens({.from = {"10.0.0.0/8"}});
  EXPECT_EQ(refusedToOpen({.from = {"11.0.0.0/8"}}),
            "tcp port 8080 of 45.45.45.1 is already in use");
  EXPECT_EQ(refusedToOpen({}), "tcp port 8080 of 45.45.45.1 is already in use");
}

TEST_F(RemoteNetworksTest, AreRefusedWhenTheyAreNone) {
  const struct Row {
    std::vector<uint32_t> networks;
    std::vector<uint32_t> prefixes;
    const char* why;
  } rows[] = {
      {{1}, {}, "each remote network needs a prefix"},
      {{}, {24}, "each remote network needs a prefix"},
      {{1, 2}, {24}, "each remote network needs a prefix"},
      {{1}, {0}, "the prefix of a remote network must be from 1 to 32"},
      {{1}, {33}, "the prefix of a remote network must be from 1 to 32"},
      {{1}, {UINT32_MAX}, "the prefix of a remote network must be from 1 to 32"},
      {std::vector<uint32_t>(9, 1), std::vector<uint32_t>(9, 32),
       "a rule has at most 8 remote networks"},
  };
  const uint32_t id = opens({.port = 9000});
  for (const Row& row : rows) {
    lm::message request = addRequest({});
    lm::message change = idOnly(id);
    for (lm::message* m : {&request, &change}) {
      m->insert_u32_array(0x88010052, row.networks);
      m->insert_u32_array(0x88010053, row.prefixes);
    }
    EXPECT_EQ(refused(request), row.why);
    EXPECT_EQ(sets(change), row.why);
  }
  lm::message half = idOnly(id);
  half.insert_u32_array(0x88010052, {});
  EXPECT_EQ(sets(half), "each remote network needs a prefix");
}

// Promise: Other remote networks replace those of a rule in one transaction, and its count goes on.
TEST_F(RemoteNetworksTest, AreReplacedInOneTransaction) {
  const uint32_t id = opens({.from = {"10.0.0.0/8"}});
  counts({.from = {"10.0.0.0/8"}}, 7);
  kernelTexts();
  EXPECT_EQ(sets(narrowing(id, {"10.1.0.0/16", "11.0.0.0/8"})), "");
  EXPECT_EQ(kernelTexts().back(),
            "delete element ip lumen filtered { 45.45.45.1 . tcp . 8080 . 10.0.0.0-10.255.255.255 }"
            "\nadd element ip lumen filtered { "
            "45.45.45.1 . tcp . 8080 . 10.1.0.0-10.1.255.255 counter packets 7 bytes 420 : "
            "192.168.88.10 . 80, "
            "45.45.45.1 . tcp . 8080 . 11.0.0.0-11.255.255.255 : 192.168.88.10 . 80 }");
  EXPECT_EQ(listedRemotes(), "10.1.0.0/16 11.0.0.0/8");
  givesUp();
  EXPECT_EQ(listedRemotes(), "10.0.0.0/8");
}

// Promise: A change without remote networks leaves those of a rule, and one with none lets packets
// from anywhere pass.
TEST_F(RemoteNetworksTest, StayUntilAChangeNamesOthersOrNone) {
  const uint32_t id = opens({.lease = 100, .from = {"10.0.0.0/8"}});
  EXPECT_EQ(renews(id, 200), "");
  EXPECT_EQ(listedRemotes(), "10.0.0.0/8");
  EXPECT_EQ(sets(narrowing(id, {})), "");
  EXPECT_EQ(kernelTexts().back(),
            "delete element ip lumen filtered { 45.45.45.1 . tcp . 8080 . 10.0.0.0-10.255.255.255 }"
            "\nadd element ip lumen forwards { 45.45.45.1 . tcp . 8080 counter packets 0 bytes 0 : "
            "192.168.88.10 . 80 }");
  EXPECT_EQ(listedRemotes(), "");
  kernelTexts();
  passes(std::chrono::seconds(201));
  EXPECT_EQ(kernelTexts(), Texts{"delete element ip lumen forwards { 45.45.45.1 . tcp . 8080 }"});
}

TEST_F(RemoteNetworksTest, GoWithTheirRule) {
  const uint32_t id = opens({.from = {"10.0.0.0/8"}});
  opens({.port = 8081});
  opens({.port = 8082, .from = {"10.0.0.0/8"}});
  kernelTexts();
  EXPECT_EQ(removes(id), "");
  rules.connectionEnded(daemon.connection);
  EXPECT_EQ(kernelTexts(), (Texts{"delete element ip lumen filtered "
                                  "{ 45.45.45.1 . tcp . 8080 . 10.0.0.0-10.255.255.255 }",
                                  "delete element ip lumen forwards { 45.45.45.1 . tcp . 8081 }\n"
                                  "delete element ip lumen filtered "
                                  "{ 45.45.45.1 . tcp . 8082 . 10.0.0.0-10.255.255.255 }"}));
}

// Promise: A connection from a remote host that a rule does not admit is none of the rule's.
TEST_F(RemoteNetworksTest, CountConnectionsFromThemAlone) {
  opens({.from = {"10.0.0.0/8"}});
  flows.flows = {from("10.1.2.3", 6, "192.168.88.10", 80),
                 from("11.1.2.3", 6, "192.168.88.10", 80)};
  EXPECT_EQ(lists()[0].get_u64(lm::nat::key::connections), 1U);
}

// Promise: Flows from remote hosts that a rule does not admit, to a program of the router at the
// same port, stay when it is opened, changed and closed.
TEST_F(RemoteNetworksTest, LeaveOtherFlowsAlone) {
  const Flow others = from("11.1.2.3", 17, "45.45.45.1", 8080);
  const Flow stuck = from("10.1.2.3", 17, "45.45.45.1", 8080);
  const Flow through = from("10.1.2.3", 17, "192.168.88.10", 80);
  const auto sweep = [&] {
    passes(std::chrono::milliseconds(200));
    ASSERT_TRUE(flows.sweeping());
    flows.finishSweep();
  };
  flows.flows = {others, stuck};
  const uint32_t id = opens({.protocol = "udp", .from = {"10.0.0.0/8"}});
  sweep();
  ASSERT_EQ(flows.flows.size(), 1U);
  EXPECT_EQ(flows.flows[0].source, others.source);
  flows.flows.push_back(through);
  EXPECT_EQ(sets(narrowing(id, {"12.0.0.0/8"})), "");
  sweep();
  ASSERT_EQ(flows.flows.size(), 1U) << "what it no longer admits has ended";
  EXPECT_EQ(removes(id), "");
  sweep();
  EXPECT_EQ(flows.flows.size(), 1U);
}

// Promise: With a ruleset file that was kept from before and has no map `filtered`, rules that name
// remote networks are refused with the reason, and all others work.
TEST_F(RemoteNetworksTest, NeedTheirMap) {
  startsWith(plainTable);
  EXPECT_EQ(refusedToOpen({.from = {"10.0.0.0/8"}}), noMap);
  const uint32_t id = opens({});
  EXPECT_EQ(sets(narrowing(id, {"10.0.0.0/8"})), noMap);
  EXPECT_EQ(sets(narrowing(id, {})), "");
  counts({}, 3);
  EXPECT_EQ(lists()[0].get_u64(lm::nat::key::uses), 3U);
  EXPECT_EQ(removes(id), "");
}

// Promise: All rules together have at most 1,024 remote networks, since each change costs more with
// more of them.
TEST_F(RemoteNetworksTest, AreNoMoreThanTheKernelChangesFast) {
  const std::vector<const char*> eight = {"1.0.0.0/8", "3.0.0.0/8",  "5.0.0.0/8",  "7.0.0.0/8",
                                          "9.0.0.0/8", "11.0.0.0/8", "13.0.0.0/8", "15.0.0.0/8"};
  const std::string why = "all rules together have at most 1024 remote networks";
  uint32_t id = 0;
  for (int port = 10000; port < 10128; ++port) {
    id = opens({.port = static_cast<uint16_t>(port), .from = eight});
  }
  const Port another = {.port = 9000, .client = "192.168.88.11", .from = {"1.0.0.0/8"}};
  EXPECT_EQ(lm::getError(rules.handle(daemon, lm::cmd::addObject, addRequest(another))), why);
  opens({.port = 9000, .client = "192.168.88.11"});
  EXPECT_EQ(sets(narrowing(id, eight)), "") << "those of the rule itself do not count twice";
  EXPECT_EQ(sets(narrowing(id, {"1.0.0.0/8"})), "");
  opens({.port = 9001, .client = "192.168.88.11", .from = {"1.0.0.0/8"}});
}

TEST_F(RemoteNetworksTest, ArePossibleByWhatTheSettingsSay) {
  const auto possible = [&] {
    return rules.handle(admin, lm::cmd::get, {}).get_bool(lm::nat::key::remotesPossible);
  };
  EXPECT_TRUE(possible());
  startsWith(plainTable);
  EXPECT_FALSE(possible());
}

}  // namespace

}  // namespace lumen::test
