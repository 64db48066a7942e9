#include <gtest/gtest.h>

#include "lumen/services/interfaces/InterfaceIds.h"

namespace lumen {
namespace {

// Also proves [link-numbers].
TEST(InterfaceIds, RiseFromOne) {
  InterfaceIds ids;
  EXPECT_EQ(ids.take("a"), 1U);
  EXPECT_EQ(ids.take("b"), 2U);
  EXPECT_EQ(ids.take("a"), 1U);
}

// Also proves [link-numbers].
TEST(InterfaceIds, StayAboveThoseOfEarlierRuns) {
  InterfaceIds ids;
  ids.restore("kept", 7);
  EXPECT_EQ(ids.take("new"), 8U);
  EXPECT_EQ(ids.take("kept"), 7U);
}

// Also proves [link-numbers].
TEST(InterfaceIds, BelongToANameThatReturns) {
  InterfaceIds ids;
  (void)ids.take("a");
  ids.release("a");
  EXPECT_EQ(ids.take("b"), 2U);
  EXPECT_EQ(ids.take("a"), 1U);
}

// Promise [remembered-names]: The ids of the latest 4096 names out of use are remembered; a name
// that was forgotten gets a new one.
TEST(InterfaceIds, AreForgottenOfTheNameThatIsLongestGone) {
  InterfaceIds ids;
  (void)ids.take("used");       // 1
  (void)ids.take("returning");  // 2
  ids.release("returning");
  (void)ids.take("gone");  // 3
  ids.release("gone");
  EXPECT_EQ(ids.take("returning"), 2U);
  ids.release("returning");
  for (size_t i = 1; i < 4096; ++i) {
    const std::string name = "veth" + std::to_string(i);
    (void)ids.take(name);
    ids.release(name);
  }
  EXPECT_EQ(ids.take("used"), 1U);
  EXPECT_EQ(ids.take("returning"), 2U);
  EXPECT_EQ(ids.take("gone"), 3U + 4096U);
}

TEST(InterfaceIds, OfEarlierRunsAreForgottenLikeOthers) {
  InterfaceIds ids;
  ids.restore("kept", 7);
  ids.release("kept");
  for (size_t i = 0; i < 4096; ++i) {
    const std::string name = "veth" + std::to_string(i);
    (void)ids.take(name);
    ids.release(name);
  }
  EXPECT_EQ(ids.take("kept"), 7U + 4096U + 1U);
}

// Also proves [link-numbers].
TEST(InterfaceIds, AreReleasedOnce) {
  InterfaceIds ids;
  ids.release("nobody");
  (void)ids.take("a");
  ids.release("a");
  ids.release("a");
  EXPECT_EQ(ids.take("a"), 1U);
  EXPECT_EQ(ids.take("nobody"), 2U);
}

}  // namespace
}  // namespace lumen
