#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>

#include "pcp/FakePinholes.h"
#include "pcp/table/PinholeTable.h"
#include "support/ManualClock.h"

namespace pcp {
namespace {

using namespace std::chrono_literals;

lumen::Ipv6Address ip6(const std::string& text) { return lumen::Ipv6Address::parse(text).value(); }

constexpr Nonce nonce = {1};
constexpr Nonce otherNonce = {2};
constexpr PinholeTable::Target tcp80 = {IPPROTO_TCP, 80};

class PinholeTableTest : public testing::Test {
 protected:
  PinholeTable::Wish wish(uint32_t lifetime = 3600) {
    return {.nonce = nonce, .host = host, .target = tcp80, .lifetime = lifetime};
  }
  uint32_t granted(const PinholeTable::Wish& wish) {
    const auto mapped = table.map(wish);
    EXPECT_TRUE(std::holds_alternative<uint32_t>(mapped));
    return std::holds_alternative<uint32_t>(mapped) ? std::get<uint32_t>(mapped) : 0;
  }
  ResultCode refused(const PinholeTable::Wish& wish) {
    const auto mapped = table.map(wish);
    EXPECT_TRUE(std::holds_alternative<ResultCode>(mapped));
    return std::holds_alternative<ResultCode>(mapped) ? std::get<ResultCode>(mapped)
                                                      : ResultCode::success;
  }

  const lumen::Ipv6Address host = ip6("2001:db8:1::10");
  test::FakePinholes pinholes;
  lm::test::ManualClock clock;
  PinholeTable table{pinholes, clock};
};

TEST_F(PinholeTableTest, AMappingIsAPinhole) {
  EXPECT_EQ(granted(wish()), 3600U);
  ASSERT_EQ(pinholes.open.size(), 1U);
  EXPECT_EQ(pinholes.open[1].host, host);
  EXPECT_EQ(pinholes.open[1].port, 80);
  EXPECT_EQ(pinholes.open[1].lifetime, 3600U);
  EXPECT_EQ(table.unmap(host, tcp80, nonce), ResultCode::success);
  EXPECT_TRUE(pinholes.open.empty());
  EXPECT_EQ(table.unmap(host, tcp80, nonce), ResultCode::success) << "there is none";
}

// Promise: The lifetime of an IPv6 pinhole is from 120 seconds to a day, whatever its host asks
// for.
TEST_F(PinholeTableTest, LifetimesHaveBounds) {
  EXPECT_EQ(granted(wish(1)), 120U);
  EXPECT_EQ(granted(wish(UINT32_MAX)), 86400U);
  EXPECT_EQ(pinholes.open.at(1).lifetime, 86400U) << "a renewal of the same one";
  clock.advance(86000s);
  EXPECT_EQ(table.left(host, tcp80), 400U);
}

TEST_F(PinholeTableTest, OnlyTheNonceOfAMappingChangesIt) {
  (void)granted(wish());
  PinholeTable::Wish other = wish();
  other.nonce = otherNonce;
  EXPECT_EQ(refused(other), ResultCode::notAuthorized);
  EXPECT_EQ(table.unmap(host, tcp80, otherNonce), ResultCode::notAuthorized);
  EXPECT_EQ(pinholes.open.size(), 1U);
}

TEST_F(PinholeTableTest, AMappingWhosePinholeEndedIsOpenedAgain) {
  (void)granted(wish());
  pinholes.open.clear();
  (void)granted(wish());
  EXPECT_EQ(pinholes.open.size(), 1U);
  table.ended(2);
  EXPECT_EQ(table.size(), 0U);
  table.ended(2);
}

TEST_F(PinholeTableTest, AnEndedMappingFreesItsNonce) {
  (void)granted(wish(120));
  clock.advance(121s);
  pinholes.open.clear();
  PinholeTable::Wish other = wish();
  other.nonce = otherNonce;
  (void)granted(other);
}

// Promise: A host has at most 64 IPv6 pinholes.
TEST_F(PinholeTableTest, AHostHasAtMost64) {
  PinholeTable::Wish next = wish();
  for (uint16_t port = 1; port <= 64; ++port) {
    next.target.port = port;
    (void)granted(next);
  }
  next.target.port = 65;
  EXPECT_EQ(refused(next), ResultCode::userExceededQuota);
  next.host = ip6("2001:db8:1::11");
  (void)granted(next);
  table.clear();
  EXPECT_EQ(table.size(), 0U);
  EXPECT_TRUE(pinholes.open.empty());
}

TEST_F(PinholeTableTest, EachFailureHasItsCode) {
  using Failure = Pinholes::Failure;
  for (const auto& [failure, code] : {std::pair{Failure::conflict, ResultCode::noResources},
                                      std::pair{Failure::forbidden, ResultCode::notAuthorized},
                                      std::pair{Failure::full, ResultCode::noResources},
                                      std::pair{Failure::network, ResultCode::networkFailure},
                                      std::pair{Failure::unavailable, ResultCode::noResources}}) {
    pinholes.failure = failure;
    EXPECT_EQ(refused(wish()), code);
  }
  pinholes.failure = Failure::conflict;
  PinholeTable::Wish exact = wish();
  exact.exact = true;
  EXPECT_EQ(refused(exact), ResultCode::cannotProvideExternal);
  EXPECT_EQ(table.size(), 0U);
}

}  // namespace
}  // namespace pcp
