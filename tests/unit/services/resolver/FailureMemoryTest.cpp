#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "lumen/services/resolver/FailureMemory.h"
#include "support/ManualClock.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

class FailureMemoryTest : public testing::Test {
 protected:
  [[nodiscard]] std::string whyFailed(const std::string& name) const {
    return memory_.find(name).value_or(Failure{"not remembered"}).text;
  }

  lm::test::ManualClock clock_;
  FailureMemory memory_{clock_};
};

// Also proves [resolver-failed].
TEST_F(FailureMemoryTest, RemembersWhyANameFailed) {
  memory_.remember("nowhere.lan", {"no such host"});
  memory_.remember("silent.lan", {"name server does not answer"});
  EXPECT_EQ(whyFailed("nowhere.lan"), "no such host");
  EXPECT_EQ(whyFailed("silent.lan"), "name server does not answer");
  EXPECT_FALSE(memory_.find("player.lan"));
}

// Also proves [resolver-failed].
TEST_F(FailureMemoryTest, ForgetsAfterAMinute) {
  memory_.remember("nowhere.lan", {"no such host"});
  clock_.advance(59'999ms);
  EXPECT_TRUE(memory_.find("nowhere.lan"));
  clock_.advance(1ms);
  EXPECT_FALSE(memory_.find("nowhere.lan"));
}

// Also proves [resolver-failed].
TEST_F(FailureMemoryTest, StartsTheMinuteAnewWhenANameFailsAgain) {
  memory_.remember("nowhere.lan", {"no such host"});
  clock_.advance(59'999ms);
  memory_.remember("nowhere.lan", {"no name server can tell"});
  EXPECT_EQ(memory_.size(), 1U);
  clock_.advance(59'999ms);
  EXPECT_EQ(whyFailed("nowhere.lan"), "no name server can tell");
}

// Also proves [resolver-memory].
TEST_F(FailureMemoryTest, HoldsNothingThatItHasForgotten) {
  for (int i = 0; i < 100; ++i) memory_.remember("host" + std::to_string(i), {"no such host"});
  clock_.advance(60s);
  memory_.remember("nowhere.lan", {"no such host"});
  EXPECT_EQ(memory_.size(), 1U);
}

// Promise [resolver-memory]: 1024 failed names are remembered, the oldest is forgotten when one
// more comes, and what is over takes no memory.
TEST_F(FailureMemoryTest, ForgetsTheOldestWhenThereAreTooMany) {
  constexpr size_t most = 1024;
  for (size_t i = 0; i <= most; ++i) {
    memory_.remember("host" + std::to_string(i), {"no such host"});
  }
  EXPECT_EQ(memory_.size(), most);
  EXPECT_FALSE(memory_.find("host0"));
  EXPECT_TRUE(memory_.find("host1"));
  EXPECT_TRUE(memory_.find("host" + std::to_string(most)));
}

}  // namespace
}  // namespace lumen
