// Pinholes in the real kernel, in a network namespace of each test's own. Needs root.

#include <gtest/gtest.h>
#include <sched.h>

#include <memory>
#include <string>

#include "lumen/services/pinholes/PinholeSet.h"
#include "lumen/services/system/netfilter/LibNftables.h"
#include "support/WhyNot.h"

namespace lumen::test {
namespace {

class PinholeKernelTest : public testing::Test {
 protected:
  PinholeKernelTest() {
    EXPECT_EQ(unshare(CLONE_NEWNET), 0) << "needs root";
    nftables = std::make_unique<LibNftables>();
    set = std::make_unique<PinholeSet>(*nftables);
  }

  /// What another program sees.
  static std::string seen(const std::string& command) {
    LibNftables other;
    const Result<std::string> result = other.run(command);
    return result ? *result : result.why();
  }

  std::unique_ptr<LibNftables> nftables;
  std::unique_ptr<PinholeSet> set;
  const PinholeKey key{Ipv6Address::parse("2001:db8:1::10").value(), 6, 8080};
};

// Promise: The kernel refuses changes of the table of pinholes by other programs,
// and removes it when lumend ends.
TEST_F(PinholeKernelTest, HoldsAnElementForEachPinholeUntilItsProcessEnds) {
  ASSERT_EQ(whyNot(set->open(PINHOLE_RULESET_FILE)), "");
  EXPECT_EQ(whyNot(set->add(key)), "");
  EXPECT_NE(seen("list set ip6 lumen pinholes").find("{ 2001:db8:1::10 . "), std::string::npos);
  EXPECT_EQ(whyNot(set->add({key.host, 17, 8080})), "");
  EXPECT_NE(seen("delete table ip6 lumen").find("Operation not permitted"), std::string::npos);
  EXPECT_EQ(whyNot(set->remove({key, {key.host, 17, 8080}})), "");
  EXPECT_EQ(seen("list set ip6 lumen pinholes").find("2001:db8"), std::string::npos);
  EXPECT_EQ(whyNot(set->remove({key})), "No such file or directory");
  nftables.reset();
  EXPECT_EQ(seen("list tables ip6"), "");
}

TEST_F(PinholeKernelTest, OpensNothingBesideATableThatIsThere) {
  ASSERT_TRUE(nftables->run("add table ip6 lumen").ok());
  EXPECT_EQ(whyNot(set->open(PINHOLE_RULESET_FILE)),
            "nftables table ip6 lumen exists already: another program made it");
}

}  // namespace
}  // namespace lumen::test
