#include <gtest/gtest.h>

#include "lumen/services/resolver/Patience.h"
#include "support/ManualClock.h"

namespace lumen {
namespace {

class PatienceTest : public testing::Test {
 protected:
  lm::test::ManualClock clock_;
  Patience patience_{clock_};
};

// Also proves [resolver-budget].
TEST_F(PatienceTest, IsWholeAtFirst) { EXPECT_EQ(patience_.left(), 950U); }

// Also proves [resolver-budget].
TEST_F(PatienceTest, ShrinksByWhatWasWaited) {
  patience_.spend(300);
  EXPECT_EQ(patience_.left(), 650U);
  patience_.spend(500);
  EXPECT_EQ(patience_.left(), 150U);
}

// Also proves [resolver-budget].
TEST_F(PatienceTest, DoesNotShrinkBelowTheLeast) {
  patience_.spend(900);
  EXPECT_EQ(patience_.left(), 100U);
  for (int i = 0; i < 1000; ++i) patience_.spend(100);
  EXPECT_EQ(patience_.left(), 100U);
}

// Also proves [resolver-budget].
TEST_F(PatienceTest, IsWholeAgainAMinuteAfterItBeganToShrink) {
  patience_.spend(10);
  clock_.advance(59'999);
  patience_.spend(950);
  EXPECT_EQ(patience_.left(), 100U);
  clock_.advance(1);
  EXPECT_EQ(patience_.left(), 950U);
  patience_.spend(50);
  EXPECT_EQ(patience_.left(), 900U);
}

}  // namespace
}  // namespace lumen
