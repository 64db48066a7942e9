#include <gtest/gtest.h>

#include "base/Text.h"

// Promise: A number is read up to its first character that is no digit: `12abc` is 12, nothing and
// `abc` are 0.
// Promise: A number is read as a machine of 32 bits reads it: one above 4294967295 is 4294967295,
// and `-1` is 4294967295.
// Also proves [ui4].
TEST(Text, ReadsNumbersAsThe32BitTargetDoes) {
  const struct {
    std::string_view text;
    uint32_t number;
  } numbers[] = {
      {"", 0},
      {"12abc", 12},
      {"abc", 0},
      {" \t\n\v\f\r7", 7},
      {"+7", 7},
      {"- 7", 0},
      {"+-7", 0},
      {"--7", 0},
      {"007", 7},
      {"0x10", 0},
      {"4294967295", 4294967295U},
      {"4294967296", 4294967295U},
      {"99999999999999999999999", 4294967295U},
      {"-1", 4294967295U},
      {"-4294967295", 1},
      {"-4294967296", 4294967295U},
      {"-0", 0},
      {"1.9", 1},
      {std::string_view("1\0002", 3), 1},
  };
  for (const auto& [text, number] : numbers) EXPECT_EQ(strtouint(text), number) << text;
}

// Promise: Numbers are written in decimal without padding: 4294967295 is `4294967295` and -1 is
// `-1`.
TEST(Text, WritesNumbers) {
  EXPECT_EQ(uinttostr(0), "0");
  EXPECT_EQ(uinttostr(4294967295), "4294967295");
  EXPECT_EQ(inttostr(-1), "-1");
  EXPECT_EQ(inttostr(2147483647), "2147483647");
}
