#include <gtest/gtest.h>

#include <chrono>

#include "lumen/services/resolver/Patience.h"
#include "support/ManualClock.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

class PatienceTest : public testing::Test {
 protected:
  lm::test::ManualClock clock_;
  Patience patience_{clock_};
};

// Also proves [resolver-budget].
TEST_F(PatienceTest, IsWholeAtFirst) { EXPECT_EQ(patience_.left(), 950ms); }

// Also proves [resolver-budget].
TEST_F(PatienceTest, ShrinksByWhatWasWaited) {
  patience_.spend(300ms);
  EXPECT_EQ(patience_.left(), 650ms);
  patience_.spend(500ms);
  EXPECT_EQ(patience_.left(), 150ms);
}

// Also proves [resolver-budget].
TEST_F(PatienceTest, DoesNotShrinkBelowTheLeast) {
  patience_.spend(900ms);
  EXPECT_EQ(patience_.left(), 100ms);
  for (int i = 0; i < 1000; ++i) patience_.spend(100ms);
  EXPECT_EQ(patience_.left(), 100ms);
}

// Also proves [resolver-budget].
TEST_F(PatienceTest, IsWholeAgainAMinuteAfterItBeganToShrink) {
  patience_.spend(10ms);
  clock_.advance(59'999ms);
  patience_.spend(950ms);
  EXPECT_EQ(patience_.left(), 100ms);
  clock_.advance(1ms);
  EXPECT_EQ(patience_.left(), 950ms);
  patience_.spend(50ms);
  EXPECT_EQ(patience_.left(), 900ms);
}

}  // namespace
}  // namespace lumen
