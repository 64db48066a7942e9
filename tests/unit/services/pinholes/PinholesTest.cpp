#include "services/pinholes/PinholesFixture.h"

namespace lumen::test {

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
