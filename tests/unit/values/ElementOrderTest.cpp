#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "lumen/values/ElementOrder.h"

namespace lumen {
namespace {

using Numbers = std::vector<uint32_t>;

// In rising order.
const std::vector<Numbers> rising = {{},  {20}, {20, 0}, {20, 1}, {20, 0x100}, {20, 0x1000000},
                                     {21}};

/// Whether this library has GCC bug 113960. Its version has no number of its own; the compiler that
/// it comes with tells.
constexpr bool libraryIsWrong() {
  if constexpr (std::endian::native == std::endian::little) return false;
#if defined(__GLIBCXX__) && defined(__GNUC__)
  return __GNUC__ < 12 || (__GNUC__ == 12 && __GNUC_MINOR__ < 4) ||
         (__GNUC__ == 13 && __GNUC_MINOR__ < 3);
#else
  return false;
#endif
}

TEST(ElementOrderTest, VectorsAreOrderedByTheirElements) {
  const ElementOrder less;
  for (size_t i = 0; i < rising.size(); ++i) {
    for (size_t j = 0; j < rising.size(); ++j) {
      EXPECT_EQ(less(rising[i], rising[j]), i < j) << i << ' ' << j;
    }
  }
}

TEST(ElementOrderTest, PairsAreOrderedByTheirFirstMemberAndThenByTheSecond) {
  const ElementOrder less;
  using Topic = std::pair<uint32_t, Numbers>;
  EXPECT_TRUE(less(Topic(1, {20, 1}), Topic(2, {20, 0})));
  EXPECT_FALSE(less(Topic(2, {20, 0}), Topic(1, {20, 1})));
  EXPECT_TRUE(less(Topic(1, {20, 0}), Topic(1, {20, 1})));
  EXPECT_FALSE(less(Topic(1, {20, 1}), Topic(1, {20, 0})));
  EXPECT_FALSE(less(Topic(1, {20, 1}), Topic(1, {20, 1})));
}

TEST(ElementOrderTest, KeysThatDifferInTheLastElementAreTwoKeys) {
  std::map<Numbers, std::string, ElementOrder> names;
  names[{20, 0}] = "interfaces";
  names[{20, 1}] = "addresses";
  EXPECT_EQ(names.size(), 2U);
  EXPECT_EQ(names[Numbers({20, 0})], "interfaces");
}

// What the order above is for. On a big-endian machine it shows what the vectors' own order does.
TEST(ElementOrderTest, VectorsOwnOrderIsWrongWhereTheLibraryIs) {
  const bool right = rising[2] < rising[3];
  std::printf("[20, 0] < [20, 1]: %s\n", right ? "true" : "false");
  EXPECT_EQ(right, !libraryIsWrong());
}

}  // namespace
}  // namespace lumen
