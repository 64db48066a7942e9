#include <gtest/gtest.h>
#include <netinet/in.h>

#include <variant>

#include "pcp/FakePorts.h"
#include "pcp/table/MappingTable.h"
#include "support/ManualClock.h"

namespace pcp {
namespace {

using namespace std::chrono_literals;

constexpr IpAddress lanHost = IpAddress::mapped({192, 168, 88, 10});
constexpr IpAddress otherHost = IpAddress::mapped({192, 168, 88, 11});
constexpr lumen::Ipv4Address outside = {45, 45, 45, 2};
constexpr lumen::Ipv4Address newOutside = {46, 46, 46, 2};
constexpr Nonce nonce = {1, 2, 3};
constexpr Nonce otherNonce = {4, 5, 6};
const lumen::Ipv6Network office = test::mapped({198, 51, 100, 0}, 24);
const lumen::Ipv6Network home = test::mapped({203, 0, 113, 0}, 24);

class MappingTableTest : public testing::Test {
 protected:
  MappingTableTest() { table.setExternal(outside); }

  static MappingTable::Wish wish(uint16_t internal, uint16_t external, uint32_t lifetime = 3600) {
    return {.nonce = nonce,
            .client = lanHost,
            .target = {IPPROTO_TCP, internal},
            .port = external,
            .lifetime = lifetime};
  }

  /// What the mapping got; port 0 after a failure of the test.
  MappingTable::Assigned mapped(const MappingTable::Wish& wanted) {
    const auto result = table.map(wanted);
    if (const auto* code = std::get_if<ResultCode>(&result)) {
      ADD_FAILURE() << "refused with " << static_cast<int>(*code);
      return {};
    }
    return std::get<MappingTable::Assigned>(result);
  }
  ResultCode refused(const MappingTable::Wish& wanted) {
    const auto result = table.map(wanted);
    const auto* code = std::get_if<ResultCode>(&result);
    return code != nullptr ? *code : ResultCode::success;
  }
  /// The only open port of the router.
  const Ports::Wish& rule() {
    EXPECT_EQ(ports.rules.size(), 1U);
    return ports.rules.begin()->second;
  }

  bool isOpen(uint8_t protocol, uint16_t port) const {
    return ports.isOpen(protocol, {IpAddress::mapped(outside), port});
  }

  test::FakePorts ports;
  lm::test::ManualClock clock;
  MappingTable table{ports, clock};
};

TEST_F(MappingTableTest, AMappingIsAnOpenPort) {
  const MappingTable::Assigned assigned = mapped(wish(80, 8080));
  EXPECT_EQ(assigned.external, (Endpoint{IpAddress::mapped(outside), 8080}));
  EXPECT_EQ(assigned.lifetime, 3600U);
  EXPECT_EQ(rule().protocol, IPPROTO_TCP);
  EXPECT_EQ(rule().external, (Endpoint{IpAddress::mapped(outside), 8080}));
  EXPECT_FALSE(rule().exact);
  EXPECT_EQ(rule().client, (Endpoint{lanHost, 80}));
  EXPECT_EQ(rule().remotes, Networks{});
  EXPECT_EQ(rule().lifetime, 3600U);
  EXPECT_EQ(table.size(), 1U);
}

// Promise [pcp-taken]: A port that a client wishes and that is taken becomes another one, unless it
// wants that port or none.
TEST_F(MappingTableTest, ATakenPortBecomesAnotherOneUnlessItMustBeThatOne) {
  mapped(wish(80, 8080));
  EXPECT_EQ(mapped(wish(81, 8080)).external.port, 8081);
  MappingTable::Wish exact = wish(82, 8080);
  exact.exact = true;
  EXPECT_EQ(refused(exact), ResultCode::cannotProvideExternal);
  exact.port = 8082;
  EXPECT_EQ(mapped(exact).external.port, 8082);
  EXPECT_TRUE(ports.rules.rbegin()->second.exact);
}

// Promise [pcp-companion]: While a host has an external port by NAT-PMP or PCP for TCP, no other
// host gets it by them for UDP, nor the other way round.
TEST_F(MappingTableTest, TheCompanionOfAPortIsKeptForItsClient) {
  mapped(wish(80, 8080));
  MappingTable::Wish udp = wish(81, 8080);
  udp.target.protocol = IPPROTO_UDP;
  udp.client = otherHost;
  EXPECT_EQ(mapped(udp).external.port, 50000);
  udp.target.port = 82;
  udp.exact = true;
  EXPECT_EQ(refused(udp), ResultCode::cannotProvideExternal);
  udp.client = lanHost;
  EXPECT_EQ(mapped(udp).external.port, 8080);
  // It is kept until both are ended.
  EXPECT_EQ(table.unmap(lanHost, {IPPROTO_TCP, 80}, nonce), ResultCode::success);
  MappingTable::Wish tcp = wish(83, 8080);
  tcp.client = otherHost;
  EXPECT_NE(mapped(tcp).external.port, 8080);
  EXPECT_EQ(table.unmap(lanHost, {IPPROTO_UDP, 82}, nonce), ResultCode::success);
  tcp.target.port = 84;
  EXPECT_EQ(mapped(tcp).external.port, 8080);
  EXPECT_EQ(ports.rules.size(), table.size());
}

TEST_F(MappingTableTest, APortThatTheRouterChoseIsNoCompanionOfAnother) {
  mapped(wish(80, 50000));
  mapped(wish(81, 50001));
  MappingTable::Wish udp = wish(82, 0);
  udp.target.protocol = IPPROTO_UDP;
  udp.client = otherHost;
  EXPECT_EQ(mapped(udp).external.port, 50002);
  // Those that did not fit are free again.
  EXPECT_EQ(ports.rules.size(), 3U);
  EXPECT_FALSE(isOpen(IPPROTO_UDP, 50000) || isOpen(IPPROTO_UDP, 50001));
}

TEST_F(MappingTableTest, ARouterThatHasOnlyUnfitPortsRefusesAndKeepsNone) {
  MappingTable::Wish udp = wish(82, 0);
  udp.target.protocol = IPPROTO_UDP;
  udp.client = otherHost;
  for (uint16_t port = 50000; port < 50007; ++port) mapped(wish(port, port));
  EXPECT_EQ(mapped(udp).external.port, 50007) << "of eight the last one";
  EXPECT_EQ(table.unmap(otherHost, udp.target, nonce), ResultCode::success);
  mapped(wish(50007, 50007));
  EXPECT_EQ(refused(udp), ResultCode::noResources);
  EXPECT_EQ(ports.rules.size(), 8U);
}

TEST_F(MappingTableTest, AfterAnUnfitPortTheWishIsForgotten) {
  MappingTable::Wish companion = wish(80, 8081);
  companion.client = otherHost;
  mapped(companion);
  MappingTable::Wish udp = wish(81, 8080);
  udp.target.protocol = IPPROTO_UDP;
  // Another service has it: the router offers 8081, whose companion is another host's.
  ports.rules.emplace(
      99, Ports::Wish{.protocol = IPPROTO_UDP, .external = {IpAddress::mapped(outside), 8080}});
  EXPECT_EQ(mapped(udp).external.port, 50000);
}

// Promise [pcp-own-ports]: The UDP ports 5350 and 5351, which NAT-PMP and PCP use themselves, are
// opened to no host.
TEST_F(MappingTableTest, ThePortsOfTheProtocolsThemselvesAreNotOpened) {
  for (uint16_t port : {uint16_t{5350}, uint16_t{5351}}) {
    MappingTable::Wish udp = wish(port, port);
    udp.target.protocol = IPPROTO_UDP;
    EXPECT_GE(mapped(udp).external.port, 50000);
    udp.exact = true;
    udp.target.port = 80;
    EXPECT_EQ(refused(udp), ResultCode::cannotProvideExternal);
    EXPECT_EQ(mapped(wish(port, port)).external.port, port);
  }
  MappingTable::Wish udp = wish(1, 5349);
  udp.target.protocol = IPPROTO_UDP;
  EXPECT_EQ(mapped(udp).external.port, 5349);
  udp.target.port = 2;
  udp.port = 5352;
  EXPECT_EQ(mapped(udp).external.port, 5352);
}

TEST_F(MappingTableTest, ARequestThatComesAgainRenewsTheLease) {
  mapped(wish(80, 8080, 3600));
  clock.advance(3000s);
  EXPECT_EQ(table.left(lanHost, {IPPROTO_TCP, 80}), 600U);
  // The external port stays, whatever is wished now.
  const MappingTable::Assigned again = mapped(wish(80, 9090, 7200));
  EXPECT_EQ(again.external.port, 8080);
  EXPECT_EQ(again.lifetime, 7200U);
  EXPECT_EQ(rule().lifetime, 7200U);
  EXPECT_EQ(table.left(lanHost, {IPPROTO_TCP, 80}), 7200U);
  MappingTable::Wish exact = wish(80, 9090);
  exact.exact = true;
  EXPECT_EQ(refused(exact), ResultCode::cannotProvideExternal);
}

// Promise [pcp-lifetime]: A port that is opened by PCP lasts for at least 120 seconds, one by
// NAT-PMP never longer than its client asked, and both at most 24 hours; then the client has to ask
// again.
TEST_F(MappingTableTest, ALifetimeIsFrom120SecondsTo24Hours) {
  EXPECT_EQ(mapped(wish(80, 8080, 1)).lifetime, 120U);
  EXPECT_EQ(mapped(wish(80, 8080, 119)).lifetime, 120U);
  EXPECT_EQ(mapped(wish(80, 8080, 121)).lifetime, 121U);
  EXPECT_EQ(mapped(wish(80, 8080, 86399)).lifetime, 86399U);
  EXPECT_EQ(mapped(wish(80, 8080, 86401)).lifetime, 86400U);
  EXPECT_EQ(mapped(wish(80, 8080, 0xffffffff)).lifetime, 86400U);
  EXPECT_EQ(rule().lifetime, 86400U);
  MappingTable::Wish natPmp = wish(80, 8080, 1);
  natPmp.noLonger = true;
  EXPECT_EQ(mapped(natPmp).lifetime, 1U);
  natPmp.lifetime = 86401;
  EXPECT_EQ(mapped(natPmp).lifetime, 86400U);
}

// Promise [pcp-nonce]: A mapping of PCP is changed and ended with its own nonce only.
TEST_F(MappingTableTest, OnlyTheNonceOfAMappingChangesIt) {
  mapped(wish(80, 8080));
  MappingTable::Wish stranger = wish(80, 8080);
  stranger.nonce = otherNonce;
  EXPECT_EQ(refused(stranger), ResultCode::notAuthorized);
  EXPECT_EQ(table.unmap(lanHost, {IPPROTO_TCP, 80}, otherNonce), ResultCode::notAuthorized);
  EXPECT_EQ(table.unmapAll(lanHost, IPPROTO_TCP, otherNonce), ResultCode::notAuthorized);
  EXPECT_EQ(table.size(), 1U);
  EXPECT_EQ(table.unmap(lanHost, {IPPROTO_TCP, 80}, nonce), ResultCode::success);
  EXPECT_EQ(table.size(), 0U);
  EXPECT_TRUE(ports.rules.empty());
}

// Promise [pcp-end]: To end a mapping that does not exist succeeds.
TEST_F(MappingTableTest, WhatIsNotThereIsEndedWithSuccess) {
  EXPECT_EQ(table.unmap(lanHost, {IPPROTO_TCP, 80}, nonce), ResultCode::success);
}

TEST_F(MappingTableTest, AllOfAProtocolEndForOneClientOnly) {
  mapped(wish(1, 1001));
  mapped(wish(65535, 1002));
  MappingTable::Wish udp = wish(3, 1003);
  udp.target.protocol = IPPROTO_UDP;
  mapped(udp);
  MappingTable::Wish other = wish(4, 1004);
  other.client = otherHost;
  mapped(other);
  EXPECT_EQ(table.unmapAll(lanHost, IPPROTO_TCP, nonce), ResultCode::success);
  EXPECT_EQ(table.size(), 2U);
  EXPECT_FALSE(isOpen(IPPROTO_TCP, 1001) || isOpen(IPPROTO_TCP, 1002));
  EXPECT_TRUE(isOpen(IPPROTO_UDP, 1003) && isOpen(IPPROTO_TCP, 1004));
}

TEST_F(MappingTableTest, WhatTheRouterClosedIsForgotten) {
  mapped(wish(80, 8080));
  const uint32_t id = ports.rules.begin()->first;
  ports.rules.clear();
  table.ended(id + 1);
  EXPECT_EQ(table.size(), 1U);
  table.ended(id);
  EXPECT_EQ(table.size(), 0U);
  EXPECT_EQ(mapped(wish(80, 8080)).external.port, 8080);
}

// Promise [pcp-closed]: What the administrator closes its client cannot open before its lease is
// over.
TEST_F(MappingTableTest, AClosedPortIsNotOpenedBeforeItsLeaseIsOver) {
  mapped(wish(80, 8080, 600));
  table.setClosed(ports.rules.begin()->first, true);
  clock.advance(599s);
  EXPECT_EQ(refused(wish(80, 8080)), ResultCode::notAuthorized);
  EXPECT_EQ(rule().lifetime, 600U);
  table.ended(ports.rules.begin()->first);
  ports.rules.clear();
  mapped(wish(80, 8080));
  // The client may give it up.
  table.setClosed(ports.rules.begin()->first, true);
  EXPECT_EQ(table.unmap(lanHost, {IPPROTO_TCP, 80}, nonce), ResultCode::success);
  EXPECT_TRUE(ports.rules.empty());
}

TEST_F(MappingTableTest, ARenewalThatComesTooLateOpensThePortAgain) {
  mapped(wish(80, 8080));
  ports.rules.clear();
  EXPECT_EQ(mapped(wish(80, 0)).external.port, 8080);
  EXPECT_EQ(rule().client, (Endpoint{lanHost, 80}));
  EXPECT_EQ(table.size(), 1U);
  // The news of the first one comes late.
  table.ended(1);
  EXPECT_EQ(table.size(), 1U);
  // Nothing of it holds the port.
  EXPECT_EQ(table.unmap(lanHost, {IPPROTO_TCP, 80}, nonce), ResultCode::success);
  MappingTable::Wish other = wish(80, 8080);
  other.client = otherHost;
  EXPECT_EQ(mapped(other).external.port, 8080);
}

// Promise [pcp-quota]: A host has at most 64 ports by NAT-PMP and PCP together; what others have
// does not count.
TEST_F(MappingTableTest, AHostHasAtMost64Ports) {
  for (uint16_t port = 1; port <= 64; ++port) mapped(wish(port, 0));
  EXPECT_EQ(refused(wish(65, 0)), ResultCode::userExceededQuota);
  MappingTable::Wish other = wish(65, 0);
  other.client = otherHost;
  mapped(other);
  // One that it has is renewed, and the place of one that ended is free.
  mapped(wish(64, 0));
  EXPECT_EQ(table.unmap(lanHost, {IPPROTO_TCP, 1}, nonce), ResultCode::success);
  mapped(wish(65, 0));
}

TEST_F(MappingTableTest, LostNewsOfAnEndKeepsNoPlace) {
  for (uint16_t port = 1; port <= 64; ++port) mapped(wish(port, 0, 120));
  ports.rules.clear();
  clock.advance(119s);
  EXPECT_EQ(refused(wish(65, 0)), ResultCode::userExceededQuota);
  clock.advance(1s);
  mapped(wish(65, 0));
  EXPECT_EQ(table.size(), 1U);
}

TEST_F(MappingTableTest, AnEndedLeaseHasNothingLeft) {
  mapped(wish(80, 8080, 120));
  clock.advance(119s);
  EXPECT_EQ(table.left(lanHost, {IPPROTO_TCP, 80}), 1U);
  clock.advance(10s);
  EXPECT_EQ(table.left(lanHost, {IPPROTO_TCP, 80}), 0U);
  EXPECT_EQ(table.left(otherHost, {IPPROTO_TCP, 80}), std::nullopt);
}

TEST_F(MappingTableTest, TheWholeTableIsBounded) {
  MappingTable::Wish one = wish(1, 0, 120);
  for (uint32_t i = 0; i < MappingTable::most; ++i) {
    one.client = IpAddress::mapped(lumen::Ipv4Address::fromNumber(0x0a000000 + i / 64));
    one.target.port = static_cast<uint16_t>(1 + i % 64);
    one.target.protocol = IPPROTO_TCP;
    one.port = static_cast<uint16_t>(20000 + i);
    ports.rules.clear();  // the fake one looks at each
    mapped(one);
  }
  EXPECT_EQ(refused(wish(80, 8080)), ResultCode::noResources);
  clock.advance(120s);
  mapped(wish(80, 8080));
  EXPECT_EQ(table.size(), 1U);
}

TEST_F(MappingTableTest, WithoutAnExternalAddressNothingIsMapped) {
  table.setExternal(std::nullopt);
  EXPECT_EQ(refused(wish(80, 8080)), ResultCode::networkFailure);
}

TEST_F(MappingTableTest, AnotherExternalAddressEndsAllMappings) {
  mapped(wish(80, 8080));
  table.setExternal(outside);
  EXPECT_EQ(table.size(), 1U);
  table.setExternal(newOutside);
  EXPECT_EQ(table.size(), 0U);
  EXPECT_TRUE(ports.rules.empty());
  // The news of the old one comes late.
  table.ended(1);
  EXPECT_EQ(mapped(wish(80, 8080)).external.address, IpAddress::mapped(newOutside));
}

TEST_F(MappingTableTest, AnExternalAddressThatReturnsHasNoHolders) {
  mapped(wish(80, 8080));
  table.setExternal(std::nullopt);
  table.setExternal(outside);
  MappingTable::Wish other = wish(80, 8080);
  other.client = otherHost;
  EXPECT_EQ(mapped(other).external.port, 8080);
}

TEST_F(MappingTableTest, EachFailureOfTheRouterHasItsCode) {
  const struct {
    Ports::Failure failure;
    ResultCode code;
  } rows[] = {{Ports::Failure::conflict, ResultCode::noResources},
              {Ports::Failure::forbidden, ResultCode::notAuthorized},
              {Ports::Failure::full, ResultCode::noResources},
              {Ports::Failure::unavailable, ResultCode::noResources}};
  for (const auto& row : rows) {
    ports.failure = row.failure;
    EXPECT_EQ(refused(wish(80, 8080)), row.code);
  }
  EXPECT_EQ(table.size(), 0U);
}

TEST_F(MappingTableTest, FiltersAreTheNetworksOfThePort) {
  MappingTable::Wish filtered = wish(80, 8080);
  filtered.filter.networks = {office};
  mapped(filtered);
  EXPECT_EQ(rule().remotes, Networks{office});
  // It stays without being named, and is not added twice.
  mapped(wish(80, 8080));
  mapped(filtered);
  EXPECT_EQ(rule().remotes, Networks{office});
  filtered.filter.networks = {home};
  mapped(filtered);
  EXPECT_EQ(rule().remotes, lumen::tidyNetworks(Networks{home, office})) << "one more";
}

TEST_F(MappingTableTest, MoreFiltersThanARuleHasAreRefused) {
  const auto hosts = [](uint8_t first, uint8_t count) {
    Networks networks;
    for (uint8_t i = 0; i < count; ++i) {
      networks.push_back(test::mapped({10, 0, 0, static_cast<uint8_t>(first + i)}, 32));
    }
    return networks;
  };
  MappingTable::Wish filtered = wish(80, 8080);
  filtered.filter.networks = hosts(0, 9);
  EXPECT_EQ(refused(filtered), ResultCode::excessiveRemotePeers);
  filtered.filter.networks = hosts(0, 8);
  mapped(filtered);
  EXPECT_EQ(mapped(filtered).external.port, 8080) << "as many as it has";
  filtered.filter.networks = hosts(8, 1);
  EXPECT_EQ(refused(filtered), ResultCode::excessiveRemotePeers);
  EXPECT_EQ(rule().remotes, hosts(0, 8));
  filtered.filter.forget = true;
  mapped(filtered);
  EXPECT_EQ(rule().remotes, hosts(8, 1));
  // A network counts for all that lie in it.
  filtered.filter = {.networks = {test::mapped({10, 0, 0, 0}, 24)}};
  mapped(filtered);
  EXPECT_EQ(rule().remotes, filtered.filter.networks);
}

TEST_F(MappingTableTest, FiltersCanBeReplacedAndForgotten) {
  mapped(wish(80, 8080));
  const uint32_t id = ports.rules.begin()->first;
  MappingTable::Wish filtered = wish(80, 8080);
  filtered.filter = {.forget = true, .networks = {home}};
  EXPECT_EQ(mapped(filtered).external.port, 8080);
  EXPECT_EQ(rule().remotes, Networks{home});
  filtered.filter = {.forget = true};
  mapped(filtered);
  EXPECT_EQ(rule().remotes, Networks{});
  EXPECT_EQ(ports.rules.begin()->first, id) << "it is the same port all the time";
}

TEST_F(MappingTableTest, AFilterThatTheRouterRefusesLeavesTheOldOne) {
  MappingTable::Wish filtered = wish(80, 8080);
  filtered.filter.networks = {office};
  mapped(filtered);
  filtered.filter = {.forget = true, .networks = {home}};
  ports.refusesNext = Ports::Failure::forbidden;
  EXPECT_EQ(refused(filtered), ResultCode::notAuthorized);
  EXPECT_EQ(rule().remotes, Networks{office});
  EXPECT_EQ(table.size(), 1U);
}

TEST_F(MappingTableTest, APortThatOpensAgainKeepsItsFilters) {
  MappingTable::Wish filtered = wish(80, 8080);
  filtered.filter.networks = {office};
  mapped(filtered);
  ports.rules.clear();
  filtered.filter.networks = {home};
  mapped(filtered);
  EXPECT_EQ(rule().remotes, lumen::tidyNetworks(Networks{home, office}));
}

// Promise: A port that the administrator closed by a request that was given up can be renewed.
TEST_F(MappingTableTest, APortWhoseClosingIsUndoneIsRenewed) {
  mapped(wish(80, 8080));
  const uint32_t id = ports.rules.begin()->first;
  table.setClosed(id, true);
  EXPECT_EQ(refused(wish(80, 8080)), ResultCode::notAuthorized);
  table.setClosed(id, false);
  mapped(wish(80, 8080));
}

}  // namespace
}  // namespace pcp
