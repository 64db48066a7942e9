#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "pcp/table/Announcements.h"
#include "support/ManualClock.h"

namespace pcp {
namespace {

using namespace std::chrono_literals;

class AnnouncementsTest : public testing::Test {
 protected:
  /// When each was sent, in milliseconds from now.
  std::vector<int64_t> allSent() {
    const lm::Clock::Time begin = clock.now();
    std::vector<int64_t> sent;
    while (const auto wait = announcements.untilNext()) {
      if (*wait > 0ms) {
        clock.advance(*wait - 1ms);
        EXPECT_FALSE(announcements.take());
        clock.advance(1ms);
      }
      EXPECT_TRUE(announcements.take());
      sent.push_back((clock.now() - begin).count());
    }
    return sent;
  }

  lm::test::ManualClock clock;
  Announcements announcements{clock};
};

// Promise [pcp-announcements]: A change of the external address is announced to the LAN ten times,
// with pauses that double from 250 ms on.
TEST_F(AnnouncementsTest, TenWithPausesThatDouble) {
  announcements.begin();
  EXPECT_EQ(allSent(),
            (std::vector<int64_t>{0, 250, 750, 1750, 3750, 7750, 15750, 31750, 63750, 127750}));
}

TEST_F(AnnouncementsTest, ANewChangeBeginsAgain) {
  announcements.begin();
  EXPECT_TRUE(announcements.take());
  clock.advance(250ms);
  EXPECT_TRUE(announcements.take());
  // At once, although the next of the old ones was due later.
  announcements.begin();
  EXPECT_EQ(announcements.untilNext(), 0ms);
  const std::vector<int64_t> sent = allSent();
  EXPECT_EQ(sent.size(), 10U);
  EXPECT_EQ(sent[1], 250);
}

TEST_F(AnnouncementsTest, NoneBeforeTheBeginningAndAfterTheEnd) {
  EXPECT_FALSE(announcements.take());
  EXPECT_EQ(announcements.untilNext(), std::nullopt);
  announcements.begin();
  announcements.stop();
  EXPECT_FALSE(announcements.take());
}

}  // namespace
}  // namespace pcp
