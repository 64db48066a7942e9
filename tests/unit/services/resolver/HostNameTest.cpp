#include <gtest/gtest.h>

#include <string>

#include "lumen/services/resolver/HostName.h"

namespace lumen {
namespace {

std::string repeat(const std::string& text, size_t times) {
  std::string all;
  for (; times > 0; --times) all += text;
  return all;
}

/// Three labels of 63, each with its dot, and one of 61.
const std::string longestName = repeat(std::string(63, 'a') + ".", 3) + std::string(61, 'b');

// Also proves [resolver-command], [resolver-names].
TEST(HostName, IsConvertedToLowerCase) {
  const struct {
    std::string text;
    std::string name;
  } rows[] = {
      {"player.lan", "player.lan"},
      {"PLAYER.Lan", "player.lan"},
      {"player", "player"},
      {"player.lan.", "player.lan."},
      {"3com", "3com"},
      {"1.2.3.x", "1.2.3.x"},
      {"my-pc.lan", "my-pc.lan"},
      {"MY_PC", "my_pc"},
      {"xn--bcher-kva.example", "xn--bcher-kva.example"},
      {longestName, longestName},
      {longestName + ".", longestName + "."},
  };
  for (const auto& row : rows) EXPECT_EQ(toHostName(row.text), row.name) << row.text;
}

// Also proves [resolver-names].
TEST(HostName, IsRefusedWhenNoHostCanHaveIt) {
  const struct {
    std::string text;
    const char* why;
  } rows[] = {
      {"", "empty"},
      {".", "only the root"},
      {".lan", "an empty label at the start"},
      {"player..lan", "an empty label in the middle"},
      {"player.lan..", "an empty label at the end"},
      {"-player.lan", "a label that starts with a dash"},
      {"player-.lan", "a label that ends with a dash"},
      {std::string(64, 'a') + ".lan", "a label of 64"},
      {longestName + "b", "254 bytes"},
      {longestName + "b.", "254 bytes and a dot"},
      {std::string(100'000, 'a'), "far too long"},
      {repeat("a.", 50'000), "far too many labels"},
      {"player lan", "a blank"},
      {"player.lan\n", "a control character"},
      {"player\r\nX: y", "control characters"},
      {std::string("player\0.lan", 11), "a zero"},
      {"pl\x7f"
       "ayer",
       "a control character"},
      {"b\xc3\xbc"
       "cher.example",
       "not ASCII"},
      {"player/lan", "a slash"},
      {"user@player", "a user"},
      {"[::1]", "an IPv6 address"},
      {"::1", "an IPv6 address"},
      {"255.255.255.255", "an address"},
      {"1.2.3", "an address written short"},
      {"2130706433", "an address written as a number"},
      {"player.1", "no top domain is a number"},
      {"%s%n", "a format"},
  };
  for (const auto& row : rows) EXPECT_FALSE(toHostName(row.text)) << row.why;
}

}  // namespace
}  // namespace lumen
