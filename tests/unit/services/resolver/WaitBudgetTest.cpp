#include <gtest/gtest.h>

#include <chrono>

#include "lumen/services/resolver/WaitBudget.h"
#include "support/ManualClock.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

class WaitBudgetTest : public testing::Test {
 protected:
  lm::test::ManualClock clock_;
  WaitBudget budget_{clock_};
};

// Also proves [resolver-budget].
TEST_F(WaitBudgetTest, IsFullAtFirst) { EXPECT_EQ(budget_.left(), 950ms); }

// Also proves [resolver-budget].
TEST_F(WaitBudgetTest, ShrinksByTheTimeWaited) {
  budget_.spend(300ms);
  EXPECT_EQ(budget_.left(), 650ms);
  budget_.spend(500ms);
  EXPECT_EQ(budget_.left(), 150ms);
}

// Also proves [resolver-budget].
TEST_F(WaitBudgetTest, EndsWhenItIsSpent) {
  budget_.spend(900ms);
  EXPECT_EQ(budget_.left(), 50ms);
  for (int i = 0; i < 1000; ++i) budget_.spend(100ms);
  EXPECT_EQ(budget_.left(), 0ms);
}

// Also proves [resolver-budget].
TEST_F(WaitBudgetTest, IsFullAgainAMinuteAfterItBeganToShrink) {
  budget_.spend(10ms);
  clock_.advance(59'999ms);
  budget_.spend(950ms);
  EXPECT_EQ(budget_.left(), 0ms);
  clock_.advance(1ms);
  EXPECT_EQ(budget_.left(), 950ms);
  budget_.spend(50ms);
  EXPECT_EQ(budget_.left(), 900ms);
}

}  // namespace
}  // namespace lumen
