#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "http/HeaderLine.h"
#include "http/Log.h"
#include "http/RequestLine.h"
#include "http/Server.h"
#include "http/Text.h"
#include "platform/System.h"

namespace {

std::string logged(const std::function<void()>& log) {
  testing::internal::CaptureStdout();
  log();
  return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(Text, ReadsAndWritesAddressesInNetworkByteOrder) {
  EXPECT_EQ(strtoip("10.0.0.1"), htonl(0x0A000001));
  EXPECT_EQ(iptostr(htonl(0x0A000001)), "10.0.0.1");
  EXPECT_EQ(iptostr(strtoip("10.0.0.1")), "10.0.0.1");
  EXPECT_EQ(iptostr(0), "0.0.0.0");
}

TEST(Text, GivesAllOnesForNoAddress) {
  for (const char* text : {"", "x", "256.0.0.1", "1.2.3.4.5", "10.0.0.1x"}) {
    EXPECT_EQ(strtoip(text), 0xFFFFFFFF) << text;
  }
}

TEST(Text, NumbersAnAddressAsABigEndianMachineDoes) {
  EXPECT_EQ(iptonumber(strtoip("10.0.0.1")), 167772161U);
  EXPECT_LT(iptonumber(strtoip("10.0.0.2")), iptonumber(strtoip("10.0.1.1")));
}

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

TEST(Text, WritesNumbers) {
  EXPECT_EQ(uinttostr(0), "0");
  EXPECT_EQ(uinttostr(4294967295), "4294967295");
  EXPECT_EQ(inttostr(-1), "-1");
  EXPECT_EQ(inttostr(2147483647), "2147483647");
}

TEST(HeaderLine, NeedsAColon) {
  EXPECT_FALSE(parseHeaderLine(""));
  EXPECT_FALSE(parseHeaderLine("Host a"));
}

TEST(RequestLine, SplitsAtTheFirstBlankAndTheVersion) {
  const struct {
    const char* startLine;
    const char* method;
    const char* url;
  } lines[] = {
      {"GET /x HTTP/1.1", "GET", "/x"},
      {"GET /x", "GET", "/x"},
      {"GET /x y HTTP/1.1", "GET", "/x y"},
      {"GET /x HTTP/1.1 HTTP/1.1", "GET", "/x"},
      {"GET  HTTP/1.1", "GET", ""},
      {"GET HTTP/1.1", "GET", ""},
      {"GET ", "GET", ""},
      {"GET", "GET", ""},
      {"", "", ""},
      {" /x HTTP/1.1", "", "/x"},
      {"GET /x http/1.1", "GET", "/x http/1.1"},
  };
  for (const auto& [startLine, method, url] : lines) {
    const RequestLine line = parseRequestLine(startLine);
    EXPECT_EQ(line.method, method) << startLine;
    EXPECT_EQ(line.url, url) << startLine;
  }
}

TEST(Log, WritesTextsAndNumbersAsOneLine) {
  const std::string name = "eth0";
  EXPECT_EQ(logged([&] { logLine("intr: ", true, " ", 167772161U, " ", name, -1); }),
            "intr: 1 167772161 eth0-1\n");
}

TEST(Log, WritesOneLineWhateverAStrangerSent) {
  const std::string hostile("a\r\nenable\n\x1b[2J\0\x7f\xc3\xa4", 18);
  EXPECT_EQ(logged([&] { logLine("host '", hostile, "'"); }), "host 'a??enable??[2J??\xc3\xa4'\n");
}

TEST(Log, ShowsATerminalNothingThatItTakesForACommand) {
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

TEST(Log, CutsWhatIsTooLong) {
  const std::string longest(1024, 'x');
  EXPECT_EQ(logged([&] { logLine(longest); }), longest + "\n");
  EXPECT_EQ(logged([&] { logLine(longest, "y"); }), longest + "...\n");
}

TEST(Server, NamesThisSoftware) {
  EXPECT_EQ(SERVER_STRING, "Palinode/" + getOSVersion() + "UPnP/1.0 Kestrava UPnP/1.0");
  EXPECT_EQ(SERVER_STRING, "Palinode/" PALINODE_VERSION " UPnP/1.0 Kestrava UPnP/1.0");
  EXPECT_EQ(serverUrl(strtoip("10.0.0.1")), "http://10.0.0.1:2828");
}
