#include <gtest/gtest.h>

#include "pcp/table/AnswerLimit.h"
#include "support/ManualClock.h"

namespace pcp {
namespace {

using namespace std::chrono_literals;

constexpr lumen::Ipv4Address lanHost = {192, 168, 88, 10};
constexpr lumen::Ipv4Address otherHost = {192, 168, 88, 11};

class AnswerLimitTest : public testing::Test {
 protected:
  /// How many of so many requests are answered.
  unsigned answered(lumen::Ipv4Address host, unsigned requests) {
    unsigned count = 0;
    for (unsigned i = 0; i < requests; ++i)
      count += limit.admits(IpAddress::mapped(host)) ? 1U : 0U;
    return count;
  }

  lm::test::ManualClock clock;
  AnswerLimit limit{clock};
};

// Promise [pcp-answers]: A host gets at most 128 answers of NAT-PMP and PCP at once and 64 in each
// further second; what others get does not count.
TEST_F(AnswerLimitTest, AHostGets128AtOnceAnd64ASecond) {
  EXPECT_EQ(answered(lanHost, 1000), 128U);
  EXPECT_EQ(answered(otherHost, 1000), 128U);
  clock.advance(1s);
  EXPECT_EQ(answered(lanHost, 1000), 64U);
  clock.advance(500ms);
  EXPECT_EQ(answered(lanHost, 1000), 32U);
}

TEST_F(AnswerLimitTest, SilenceSavesNoMoreThanTheFirstAnswers) {
  EXPECT_EQ(answered(lanHost, 1000), 128U);
  clock.advance(1h);
  EXPECT_EQ(answered(lanHost, 1000), 128U);
}

TEST_F(AnswerLimitTest, ASteadyFloodGetsItsRateAllTheSame) {
  EXPECT_EQ(answered(lanHost, 1000), 128U);
  unsigned count = 0;
  for (int i = 0; i < 10000; ++i) {
    clock.advance(1ms);
    count += answered(lanHost, 1);
  }
  EXPECT_NEAR(count, 640, 1);
}

TEST_F(AnswerLimitTest, TheHostThatWasSilentForLongestIsForgotten) {
  EXPECT_EQ(answered(lanHost, 128), 128U);
  clock.advance(1ms);
  EXPECT_EQ(answered(otherHost, 128), 128U);
  clock.advance(1ms);
  for (uint32_t i = 2; i < AnswerLimit::mostHosts; ++i) {
    (void)limit.admits(IpAddress::mapped(lumen::Ipv4Address::fromNumber(0x0a000000 + i)));
  }
  EXPECT_EQ(answered(otherHost, 1), 0U);
  EXPECT_TRUE(limit.admits(IpAddress::mapped({10, 1, 0, 1})));  // takes the place of lanHost
  EXPECT_EQ(limit.hosts(), 1024U);
  EXPECT_EQ(answered(otherHost, 1), 0U);
  EXPECT_EQ(answered(lanHost, 1), 1U);
}

}  // namespace
}  // namespace pcp
