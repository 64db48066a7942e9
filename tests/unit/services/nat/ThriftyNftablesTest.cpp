#include <gtest/gtest.h>

#include <chrono>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/system/netfilter/ThriftyNftables.h"
#include "services/nat/FakeKernel.h"
#include "support/ManualClock.h"

namespace lumen::test {

namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

class ThriftyNftablesTest : public ::testing::Test {
 protected:
  void passes(std::chrono::milliseconds time) {
    clock.advance(time);
    loop.turn(0ms);
  }

  lm::test::ManualClock clock;
  lm::EventLoop loop{clock};
  FakeNftables kernel;
  ThriftyNftables nftables{kernel};
};

TEST_F(ThriftyNftablesTest, ForgetOnceTheKernelWasLeftAloneForASecond) {
  EXPECT_TRUE(nftables.runFile("ruleset").ok());
  passes(900ms);
  kernel.prints("list", "a table");
  EXPECT_EQ(*nftables.run("list"), "a table");
  passes(900ms);
  EXPECT_EQ(kernel.takeTexts(), (Texts{"file ruleset", "list"})) << "commands still came";
  passes(100ms);
  EXPECT_EQ(kernel.takeTexts(), Texts{"forgets"});
  passes(10s);
  EXPECT_EQ(kernel.takeTexts(), Texts{});
  kernel.refuses("add", "no");
  EXPECT_EQ(nftables.run("add").why(), "no");
  passes(1s);
  EXPECT_EQ(kernel.takeTexts(), (Texts{"add", "forgets"}));
}

TEST_F(ThriftyNftablesTest, ForgetAfterChangesAndListsOfElementsToo) {
  const ElementSet ports = {.family = TableFamily::ip, .table = "lumen", .name = "forwards"};
  EXPECT_TRUE(nftables.changeElements({}).ok());
  passes(1s);
  EXPECT_EQ(kernel.takeTexts(), (Texts{"", "forgets"}));
  EXPECT_TRUE(nftables.readElements(ports, [](const SetElement&) {}).ok());
  passes(1s);
  EXPECT_EQ(kernel.takeTexts(), (Texts{"list map ip lumen forwards", "forgets"}));
}

}  // namespace

}  // namespace lumen::test
