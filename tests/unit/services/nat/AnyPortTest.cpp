// Rules that take any free port, and refusals that say who has one that is taken.

#include <set>

#include "lumen/services/nat/NatRules.h"
#include "platform/wire/NatRules.h"
#include "services/nat/NatFixture.h"

namespace lumen::test {

namespace {

using lm::nat::Denial;
using lm::nat::Holder;
using lm::nat::Refusal;

class AnyPortTest : public NatFixture {
 protected:
  /// The external port that a rule with this wish gets; 0: none.
  uint32_t gets(uint32_t wish, const char* client = "192.168.88.10") {
    const lm::message reply =
        adds({.protocol = "udp", .port = wish, .client = client, .anyPort = true});
    EXPECT_EQ(lm::getError(reply), "");
    return reply.get_u32(lm::nat::key::portFirst);
  }
  lm::message adds(const Port& port) { return addsAs(daemon, port); }
  lm::message addsAs(const Caller& caller, const Port& port) {
    return rules.handle(caller, lm::cmd::addObject, addRequest(port));
  }
  Denial denied(const Port& port) { return deniedAs(daemon, port); }
  Denial deniedAs(const Caller& caller, const Port& port) {
    const lm::message reply = addsAs(caller, port);
    EXPECT_TRUE(lm::isError(reply));
    return lm::nat::readDenial(reply);
  }
};

}  // namespace

// Promise: The reply to an add says which external port the rule has only if lumend chose it.
TEST_F(AnyPortTest, SaysNoPortToARequestThatNamesIt) {
  EXPECT_EQ(adds({}).get_u32(lm::nat::key::portFirst, 1), 1U);
}

// Promise [any-port]: An add that leaves the external port open gets one of the policy's that is
// free: its wish if that is one, else any; never one at which a program of the router listens.
TEST_F(AnyPortTest, GrantsAWishThatIsFree) {
  EXPECT_EQ(gets(9000), 9000U);
  EXPECT_EQ(kernelTexts(), Texts{"add element ip lumen forwards "
                                 "{ 45.45.45.1 . udp . 9000 : 192.168.88.10 . 80 }"});
}

// Also proves [any-port].
TEST_F(AnyPortTest, GivesAnotherPortForOneThatIsTakenOrNotAllowed) {
  restrictsPortsTo("9000-9009");
  listeners.programs[{17, 9005}] = "dnsmasq.service";
  std::set<uint32_t> got = {gets(9000)};
  for (const uint32_t wish : {9000U, 9005U, 80U, 0U, 65535U}) got.insert(gets(wish));
  got.insert(gets(9000, "192.168.88.11"));
  got.insert(gets(0));
  EXPECT_EQ(got.size(), 8U) << "no port twice";
  EXPECT_TRUE(got.contains(9000));
  got.insert(gets(0));
  for (const uint32_t port : got) {
    EXPECT_GE(port, 9000U);
    EXPECT_LE(port, 9009U);
    EXPECT_NE(port, 9005U);
  }
  EXPECT_EQ(got.size(), 9U);
  EXPECT_EQ(lists().size(), 9U);
  const lm::message reply = adds({.protocol = "udp", .port = 0, .anyPort = true});
  EXPECT_EQ(lm::getError(reply), "no external port is free");
  EXPECT_EQ(lm::nat::readDenial(reply), Denial{.why = Refusal::full});
  EXPECT_EQ(
      adds({.protocol = "tcp", .port = 9001, .anyPort = true}).get_u32(lm::nat::key::portFirst),
      9001U)
      << "the other protocol has its own ports";
}

TEST_F(AnyPortTest, TakesAPortOfTheRoutersProgramsWhereThePolicyDoes) {
  listeners.programs[{17, 9005}] = "dnsmasq.service";
  lm::message policy;
  policy.insert_string(lm::nat::key::routerPorts, "9005");
  ASSERT_EQ(asks(admin, lm::cmd::set, policy), "");
  EXPECT_EQ(gets(9005), 9005U);
}

TEST_F(AnyPortTest, AsksForTheRoutersProgramsAsOftenBesideManyRules) {
  lm::message policy;
  policy.insert_u32(lm::nat::key::maxRulesPerClient, 4096);
  ASSERT_EQ(asks(admin, lm::cmd::set, policy), "");
  for (uint32_t i = 0; i < 3000; ++i) opens({.protocol = "udp", .port = 2000 + i});
  listeners.asked.clear();
  for (uint32_t i = 0; i < 50; ++i) (void)gets(2000, "192.168.88.11");
  EXPECT_EQ(listeners.asked.size(), 50U) << "only for the port that is chosen";
}

TEST_F(AnyPortTest, LeavesOtherChecksAsTheyAre) {
  EXPECT_EQ(refusedToOpen({.port = 0, .client = "8.8.8.8", .anyPort = true}),
            "internal client 8.8.8.8 is not allowed by the policy: it is not directly connected");
  EXPECT_EQ(refusedToOpen({.port = 65536, .anyPort = true}),
            "external port must be from 1 to 65535");
  EXPECT_EQ(refusedToOpen({.port = 0}), "external port must be from 1 to 65535");
  lm::message range = addRequest({.port = 0, .anyPort = true});
  range.insert_u32(10, 9000);
  EXPECT_EQ(refused(range), "external port must be one, not a range");
}

// Promise: A refused change says why as a number too: a port that is taken with who
// has it, what the policy forbids, that there is no place, or anything else.
TEST_F(AnyPortTest, SaysWhoHasAPortThatIsTaken) {
  const Caller other{.connection = 8, .service = 41, .name = "pcp", .ports = PortGrant()};
  const Caller sameService{.connection = 11, .service = 40, .name = "upnp", .ports = PortGrant()};
  opens({});
  opensAs(admin, {.port = 9000, .disabled = true});
  listeners.programs[{6, 8443}] = "ssh.service";
  EXPECT_EQ(denied({}), (Denial{Refusal::conflict, Holder::sameService}));
  EXPECT_EQ(deniedAs(sameService, {}), (Denial{Refusal::conflict, Holder::sameService}));
  EXPECT_EQ(deniedAs(other, {}), (Denial{Refusal::conflict, Holder::otherService}));
  EXPECT_EQ(deniedAs(admin, {}), (Denial{Refusal::conflict, Holder::otherService}));
  EXPECT_EQ(denied({.port = 9000}), (Denial{Refusal::conflict, Holder::administrator}));
  EXPECT_EQ(deniedAs(admin, {.port = 9000}), (Denial{Refusal::conflict, Holder::administrator}));
  EXPECT_EQ(denied({.port = 8443}), (Denial{Refusal::conflict, Holder::router}));
}

TEST_F(AnyPortTest, SaysWhyARuleIsRefused) {
  EXPECT_EQ(denied({.port = 80}), Denial{.why = Refusal::port});
  EXPECT_EQ(denied({.client = "8.8.8.8"}), Denial{.why = Refusal::policy});
  EXPECT_EQ(denied({.external = "45.45.45.2"}), Denial{.why = Refusal::policy});
  EXPECT_EQ(denied({.clientPort = 0}), Denial{.why = Refusal::other});
  nftables.refuses("add element ip lumen forwards { 45.45.45.1 . tcp . 9000 : 192.168.88.10 . 80 }",
                   "no memory");
  EXPECT_EQ(denied({.port = 9000}), Denial{.why = Refusal::other});
  lm::message policy;
  policy.insert_u32(lm::nat::key::maxRules, 3);
  policy.insert_u32(lm::nat::key::maxRulesPerClient, 1);
  ASSERT_EQ(asks(admin, lm::cmd::set, policy), "");
  opens({});
  EXPECT_EQ(denied({.port = 8081}), Denial{.why = Refusal::full}) << "of the client";
  opens({.port = 8081, .client = "192.168.88.11"});
  opens({.port = 8082, .client = "192.168.88.12"});
  EXPECT_EQ(denied({.port = 8083, .client = "192.168.88.13"}), Denial{.why = Refusal::full});
}

TEST_F(AnyPortTest, SaysWhyAChangeIsRefused) {
  const uint32_t id = opens({.lease = 120});
  const auto denial = [&](const lm::message& request) {
    return lm::nat::readDenial(rules.handle(daemon, lm::cmd::setObject, request));
  };
  EXPECT_EQ(denial(setRequest(id, "8.8.8.8", 80)), Denial{.why = Refusal::policy});
  EXPECT_EQ(denial(setRequest(77, "192.168.88.10", 80)), Denial{.why = Refusal::other});
  EXPECT_EQ(closes(id), "");
  EXPECT_EQ(denial(renewal(id, 120)), Denial{.why = Refusal::policy});
}

}  // namespace lumen::test
