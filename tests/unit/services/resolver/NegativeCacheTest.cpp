#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "lumen/services/resolver/NegativeCache.h"
#include "support/ManualClock.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

class NegativeCacheTest : public testing::Test {
 protected:
  [[nodiscard]] std::string whyFailed(const std::string& name) const {
    return cache_.find(name).value_or(Failure{"not remembered"}).text;
  }

  lm::test::ManualClock clock_;
  NegativeCache cache_{clock_};
};

// Also proves [resolver-failed].
TEST_F(NegativeCacheTest, KeepsWhyANameFailed) {
  cache_.add("nowhere.lan", {"no such host"});
  cache_.add("silent.lan", {"name server does not answer"});
  EXPECT_EQ(whyFailed("nowhere.lan"), "no such host");
  EXPECT_EQ(whyFailed("silent.lan"), "name server does not answer");
  EXPECT_FALSE(cache_.find("player.lan"));
}

// Also proves [resolver-failed].
TEST_F(NegativeCacheTest, ExpiresAfterAMinute) {
  cache_.add("nowhere.lan", {"no such host"});
  clock_.advance(59'999ms);
  EXPECT_TRUE(cache_.find("nowhere.lan"));
  clock_.advance(1ms);
  EXPECT_FALSE(cache_.find("nowhere.lan"));
}

// Also proves [resolver-failed].
TEST_F(NegativeCacheTest, RestartsTheMinuteWhenANameFailsAgain) {
  cache_.add("nowhere.lan", {"no such host"});
  clock_.advance(59'999ms);
  cache_.add("nowhere.lan", {"no name server can tell"});
  EXPECT_EQ(cache_.size(), 1U);
  clock_.advance(59'999ms);
  EXPECT_EQ(whyFailed("nowhere.lan"), "no name server can tell");
}

// Also proves [resolver-memory].
TEST_F(NegativeCacheTest, KeepsNoExpiredEntries) {
  for (int i = 0; i < 100; ++i) cache_.add("host" + std::to_string(i), {"no such host"});
  clock_.advance(60s);
  cache_.add("nowhere.lan", {"no such host"});
  EXPECT_EQ(cache_.size(), 1U);
}

// Promise [resolver-memory]: The negative cache holds 1024 names; one more replaces the oldest, and
// expired ones take no memory.
TEST_F(NegativeCacheTest, ReplacesTheOldestWhenItIsFull) {
  constexpr size_t most = 1024;
  for (size_t i = 0; i <= most; ++i) {
    cache_.add("host" + std::to_string(i), {"no such host"});
  }
  EXPECT_EQ(cache_.size(), most);
  EXPECT_FALSE(cache_.find("host0"));
  EXPECT_TRUE(cache_.find("host1"));
  EXPECT_TRUE(cache_.find("host" + std::to_string(most)));
}

}  // namespace
}  // namespace lumen
