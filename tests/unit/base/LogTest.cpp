#include <gtest/gtest.h>

#include "base/Log.h"
#include "support/Logged.h"

using lm::test::logged;

// Promise [log-line]: An event in the log is one line on standard output, written at once: texts,
// numbers in decimal, and 0 or 1 for no or yes.
TEST(Log, WritesTextsAndNumbersAsOneLine) {
  const std::string name = "eth0";
  EXPECT_EQ(logged([&] { logLine("intr: ", true, " ", 167772161U, " ", name, -1); }),
            "intr: 1 167772161 eth0-1\n");
}

// Promise [log-safe]: Each byte of a control character, C1 included, and of what is no UTF-8 is a
// `?` in the log of every program, so no remote host can forge a line or control a terminal.
TEST(Log, WritesOneLineWhateverARemoteHostSent) {
  const std::string hostile("a\r\nenable\n\x1b[2J\0\x7f\xc3\xa4", 18);
  EXPECT_EQ(logged([&] { logLine("host '", hostile, "'"); }), "host 'a??enable??[2J??\xc3\xa4'\n");
}

// Also proves [log-safe].
TEST(Log, ReplacesBytesThatATerminalTakesForACommand) {
  const std::vector<std::pair<std::string, std::string>> texts = {
      {"\xc2\x9b"
       "2J",
       "??2J"},            // U+009B, which begins a command as ESC [ does
      {"\xc2\x85", "??"},  // U+0085, the next line
      {"\x9b"
       "2J",
       "?2J"},  // the same byte by itself is no UTF-8
      {"\xff\xfe", "??"},
      {"\xe2\x82", "??"},  // half of a character
      {"\xc3\xa4 \xe2\x82\xac \xf0\x9f\x9a\xaa", "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x9a\xaa"},
  };
  for (const auto& text : texts) {
    EXPECT_EQ(logged([&] { logLine("host '", text.first, "'"); }), "host '" + text.second + "'\n");
  }
}

// Promise [log-size]: A log line is cut after 1,024 bytes, which `...` shows.
TEST(Log, CutsWhatIsTooLong) {
  const std::string longest(1024, 'x');
  EXPECT_EQ(logged([&] { logLine(longest); }), longest + "\n");
  EXPECT_EQ(logged([&] { logLine(longest, "y"); }), longest + "...\n");
}
