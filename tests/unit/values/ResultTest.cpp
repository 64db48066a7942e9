#include <gtest/gtest.h>

#include <memory>

#include "lumen/values/Result.h"

namespace lumen {
namespace {

Result<int> half(int number) {
  if (number % 2 != 0) return Failure{"an odd number"};
  return number / 2;
}

TEST(ResultTest, HasAValueOrTheReasonWhyNot) {
  ASSERT_TRUE(half(4));
  EXPECT_EQ(*half(4), 2);
  ASSERT_FALSE(half(3));
  EXPECT_EQ(half(3).why(), "an odd number");
}

TEST(ResultTest, IsPassedOnWithItsReason) {
  const auto passedOn = [](int number) -> Result<std::string> {
    const Result<int> result = half(number);
    if (!result) return result.failure();
    return std::to_string(*result);
  };
  EXPECT_EQ(*passedOn(4), "2");
  EXPECT_EQ(passedOn(3).why(), "an odd number");
}

TEST(ResultTest, HoldsWhatCanOnlyBeMoved) {
  Result<std::unique_ptr<int>> result = std::make_unique<int>(7);
  const std::unique_ptr<int> taken = std::move(*result);
  EXPECT_EQ(*taken, 7);
}

TEST(ResultTest, OfNothingIsSuccessUnlessThereIsAReason) {
  EXPECT_TRUE(Result<void>());
  const Result<void> failed = Failure{"no room"};
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.why(), "no room");
}

TEST(ResultTest, OfTextDistinguishesAValueFromAReason) {
  EXPECT_TRUE(Result<std::string>(std::string("text")));
  EXPECT_FALSE(Result<std::string>(Failure{"text"}));
}

}  // namespace
}  // namespace lumen
