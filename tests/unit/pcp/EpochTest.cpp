#include <gtest/gtest.h>

#include <cstdint>

#include "pcp/table/Epoch.h"
#include "support/ManualClock.h"

namespace pcp {
namespace {

using namespace std::chrono_literals;

/// A client that looks for lost mappings as both RFCs want it. Times are in seconds.
class Client {
 public:
  /// Whether the mappings may be lost, by the epoch of an answer that comes now.
  bool concludesLoss(int64_t now, int64_t epoch) {
    const bool loss = known_ && (pcpLoss(now, epoch) || natPmpLoss(now, epoch));
    known_ = true;
    time_ = now;
    epoch_ = epoch;
    return loss;
  }

 private:
  // RFC 6887 section 8.5.
  [[nodiscard]] bool pcpLoss(int64_t now, int64_t epoch) const {
    if (epoch + 1 < epoch_) return true;
    const int64_t client = now - time_;
    const int64_t server = epoch - epoch_;
    return client + 2 < server - server / 16 || server + 2 < client - client / 16;
  }

  // RFC 6886 section 3.6.
  [[nodiscard]] bool natPmpLoss(int64_t now, int64_t epoch) const {
    return epoch + 2 < epoch_ + (now - time_) * 7 / 8;
  }

  bool known_ = false;
  int64_t time_ = 0;
  int64_t epoch_ = 0;
};

class EpochTest : public testing::Test {
 protected:
  /// The client's own clock has another beginning and ticks between those of the router.
  bool clientConcludesLoss() {
    const auto now =
        std::chrono::floor<std::chrono::seconds>(clock.now() - lm::Clock::Time() + 700ms);
    return client.concludesLoss(now.count(), epoch.seconds());
  }

  lm::test::ManualClock clock;
  Epoch epoch{clock};
  Client client;
};

TEST_F(EpochTest, BeginsWithZeroAndCountsWholeSeconds) {
  EXPECT_EQ(epoch.seconds(), 0U);
  clock.advance(999ms);
  EXPECT_EQ(epoch.seconds(), 0U);
  clock.advance(1ms);
  EXPECT_EQ(epoch.seconds(), 1U);
  clock.advance(365 * 24h);
  EXPECT_EQ(epoch.seconds(), 1U + 365 * 24 * 3600);
  epoch.restart();
  EXPECT_EQ(epoch.seconds(), 0U);
}

// Promise: A client that looks at the epoch as RFC 6886 and RFC 6887 want it takes no mapping for
// lost that is there, however long it is silent.
TEST_F(EpochTest, AsLongAsItRunsNoClientConcludesALoss) {
  for (const auto silence : {0ms, 1ms, 250ms, 999ms, 1001ms, 3000ms, 61'500ms, 3'600'250ms,
                             86'400'000ms, 2'592'000'999ms}) {
    EXPECT_FALSE(clientConcludesLoss());
    clock.advance(silence);
  }
  EXPECT_FALSE(clientConcludesLoss());
}

// Promise: A client that looks at the epoch as RFC 6886 and RFC 6887 want it sees a new one at
// once, unless the old one lasted for a few seconds only.
TEST_F(EpochTest, AfterARestartEveryClientConcludesALoss) {
  for (const auto age : {4s, 60s, 3600s, 86400s}) {
    EXPECT_FALSE(clientConcludesLoss()) << age.count();
    clock.advance(age);
    epoch.restart();
    EXPECT_TRUE(clientConcludesLoss()) << age.count();
    clock.advance(1s);
    EXPECT_FALSE(clientConcludesLoss()) << age.count();
  }
}

}  // namespace
}  // namespace pcp
