#include <gtest/gtest.h>

#include "lumen/services/nat/IdHistory.h"

namespace lumen::test {

TEST(IdHistory, KnowsTheIdsThatWereAdded) {
  IdHistory history;
  EXPECT_FALSE(history.contains(0));
  for (const uint32_t id : {1U, 2U, 3U, 7U, 9U, 10U}) history.add(id);
  for (const uint32_t id : {1U, 2U, 3U, 7U, 9U, 10U}) EXPECT_TRUE(history.contains(id)) << id;
  for (const uint32_t id : {0U, 4U, 6U, 8U, 11U}) EXPECT_FALSE(history.contains(id)) << id;
  EXPECT_EQ(history.runs(), 3U);
}

// Promise: What lumend remembers of the rules that a connection once had stays small through any
// number of leases, and no rule that it had is forgotten.
TEST(IdHistory, StaysSmallWhileConnectionsAddInTurn) {
  IdHistory history;
  constexpr uint32_t last = 200'001;
  for (uint32_t id = 1; id <= last; id += 2) {
    history.add(id);
    ASSERT_LE(history.runs(), IdHistory::mostRuns);
  }
  for (uint32_t id = 1; id <= last; id += 2) ASSERT_TRUE(history.contains(id)) << id;
  for (uint32_t id = last - 200; id <= last; id += 2) {
    EXPECT_FALSE(history.contains(id + 1)) << "the newest are exact";
  }
  EXPECT_FALSE(history.contains(0));
}

TEST(IdHistory, BeginsAgainWhenTheIdsDo) {
  IdHistory history;
  history.add(UINT32_MAX - 1);
  history.add(1);
  history.add(2);
  EXPECT_TRUE(history.contains(1));
  EXPECT_FALSE(history.contains(100));
  EXPECT_FALSE(history.contains(UINT32_MAX - 1));
}

}  // namespace lumen::test
