#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>

#include "pcp/FakePorts.h"
#include "pcp/table/MappingTable.h"
#include "support/ManualClock.h"

namespace pcp {
namespace {

using namespace std::chrono_literals;

IpAddress ip6(const std::string& text) { return IpAddress::parse(text).value(); }

constexpr Nonce nonce = {1};
constexpr Nonce otherNonce = {2};
constexpr MappingTable::Target tcp80 = {IPPROTO_TCP, 80};

/// The mappings of IPv6 hosts.
class PinholeTableTest : public testing::Test {
 protected:
  MappingTable::Wish wish(uint32_t lifetime = 3600) {
    return {.nonce = nonce, .client = host, .target = tcp80, .lifetime = lifetime};
  }
  uint32_t granted(const MappingTable::Wish& wish) {
    const auto mapped = table.map(wish);
    const auto* assigned = std::get_if<MappingTable::Assigned>(&mapped);
    EXPECT_NE(assigned, nullptr);
    return assigned != nullptr ? assigned->lifetime : 0;
  }
  ResultCode refused(const MappingTable::Wish& wish) {
    const auto mapped = table.map(wish);
    EXPECT_TRUE(std::holds_alternative<ResultCode>(mapped));
    return std::holds_alternative<ResultCode>(mapped) ? std::get<ResultCode>(mapped)
                                                      : ResultCode::success;
  }

  const IpAddress host = ip6("2001:db8:1::10");
  test::FakePorts ports;
  lm::test::ManualClock clock;
  MappingTable table{ports, clock};
};

TEST_F(PinholeTableTest, AMappingIsAPinhole) {
  EXPECT_EQ(granted(wish()), 3600U);
  ASSERT_EQ(ports.rules.size(), 1U);
  EXPECT_EQ(ports.rules[1].client, (Endpoint{host, 80}));
  EXPECT_EQ(ports.rules[1].external, (Endpoint{host, 80}));
  EXPECT_EQ(ports.rules[1].lifetime, 3600U);
  EXPECT_EQ(table.unmap(host, tcp80, nonce), ResultCode::success);
  EXPECT_TRUE(ports.rules.empty());
  EXPECT_EQ(table.unmap(host, tcp80, nonce), ResultCode::success) << "there is none";
}

// Promise: The lifetime of an IPv6 pinhole is from 120 seconds to a day, whatever its host asks
// for.
TEST_F(PinholeTableTest, LifetimesHaveBounds) {
  EXPECT_EQ(granted(wish(1)), 120U);
  EXPECT_EQ(granted(wish(UINT32_MAX)), 86400U);
  EXPECT_EQ(ports.rules.at(1).lifetime, 86400U) << "a renewal of the same one";
  clock.advance(86000s);
  EXPECT_EQ(table.left(host, tcp80), 400U);
}

TEST_F(PinholeTableTest, OnlyTheNonceOfAMappingChangesIt) {
  (void)granted(wish());
  MappingTable::Wish other = wish();
  other.nonce = otherNonce;
  EXPECT_EQ(refused(other), ResultCode::notAuthorized);
  EXPECT_EQ(table.unmap(host, tcp80, otherNonce), ResultCode::notAuthorized);
  EXPECT_EQ(ports.rules.size(), 1U);
}

TEST_F(PinholeTableTest, AMappingWhosePinholeEndedIsOpenedAgain) {
  (void)granted(wish());
  ports.rules.clear();
  (void)granted(wish());
  EXPECT_EQ(ports.rules.size(), 1U);
  table.ended(2);
  EXPECT_EQ(table.size(), 0U);
  table.ended(2);
}

TEST_F(PinholeTableTest, AnEndedMappingFreesItsNonce) {
  (void)granted(wish(120));
  clock.advance(121s);
  ports.rules.clear();
  MappingTable::Wish other = wish();
  other.nonce = otherNonce;
  (void)granted(other);
}

// Promise: A host has at most 64 IPv6 pinholes.
TEST_F(PinholeTableTest, AHostHasAtMost64) {
  MappingTable::Wish next = wish();
  for (uint16_t port = 1; port <= 64; ++port) {
    next.target.port = port;
    (void)granted(next);
  }
  next.target.port = 65;
  EXPECT_EQ(refused(next), ResultCode::userExceededQuota);
  next.client = ip6("2001:db8:1::11");
  (void)granted(next);
  table.clear();
  EXPECT_EQ(table.size(), 0U);
  EXPECT_TRUE(ports.rules.empty());
}

TEST_F(PinholeTableTest, EachFailureHasItsCode) {
  using Failure = Ports::Failure;
  for (const auto& [failure, code] : {std::pair{Failure::conflict, ResultCode::noResources},
                                      std::pair{Failure::forbidden, ResultCode::notAuthorized},
                                      std::pair{Failure::full, ResultCode::noResources},
                                      std::pair{Failure::network, ResultCode::networkFailure},
                                      std::pair{Failure::unavailable, ResultCode::noResources}}) {
    ports.failure = failure;
    EXPECT_EQ(refused(wish()), code);
  }
  ports.failure = Failure::conflict;
  MappingTable::Wish exact = wish();
  exact.exact = true;
  exact.port = exact.target.port;
  EXPECT_EQ(refused(exact), ResultCode::cannotProvideExternal);
  EXPECT_EQ(table.size(), 0U);
}

}  // namespace
}  // namespace pcp
