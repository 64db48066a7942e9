#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "http/HeaderLine.h"
#include "http/RequestLine.h"
#include "http/Server.h"
#include "http/Text.h"
#include "platform/System.h"

// Promise: An IPv4 address is read and written in dotted decimal: `10.0.0.1` is `10.0.0.1` again.
TEST(Text, ReadsAndWritesAddressesInNetworkByteOrder) {
  EXPECT_EQ(strtoip("10.0.0.1"), htonl(0x0A000001));
  EXPECT_EQ(iptostr(htonl(0x0A000001)), "10.0.0.1");
  EXPECT_EQ(iptostr(strtoip("10.0.0.1")), "10.0.0.1");
  EXPECT_EQ(iptostr(0), "0.0.0.0");
}

// Promise: A text that is no address, the empty one too, reads as all ones.
TEST(Text, GivesAllOnesForNoAddress) {
  for (const char* text : {"", "x", "256.0.0.1", "1.2.3.4.5", "10.0.0.1x"}) {
    EXPECT_EQ(strtoip(text), 0xFFFFFFFF) << text;
  }
}

// Promise: Addresses are sorted, and logged as numbers, as a big-endian machine has them, on every
// machine: `10.0.0.1` is 167772161.
// Promise: The number in the `intr:` line is the address as a big-endian machine reads it:
// 3232258049 for 192.168.88.1.
TEST(Text, NumbersAnAddressAsABigEndianMachineDoes) {
  EXPECT_EQ(iptonumber(strtoip("10.0.0.1")), 167772161U);
  EXPECT_LT(iptonumber(strtoip("10.0.0.2")), iptonumber(strtoip("10.0.1.1")));
}

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

TEST(HeaderLine, NeedsAColon) {
  EXPECT_FALSE(parseHeaderLine(""));
  EXPECT_FALSE(parseHeaderLine("Host a"));
}

// Promise: The method of a request is what stands before the first blank of its start line, and the
// URL what follows it up to the first ` HTTP/` or the end.
// Promise: A start line of one word is a method without a URL.
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

// Promise [server-field]: The daemon names itself `Palinode/` with its version, a blank and
// `UPnP/1.0 Kestrava UPnP/1.0` in every `SERVER` field.
// Promise: The base URL of an interface is `http://`, its address and `:2828`.
// Promise: SERVER reads `Palinode/<version> UPnP/1.0 Kestrava UPnP/1.0` in every message that has
// it.
TEST(Server, NamesThisSoftware) {
  EXPECT_EQ(SERVER_STRING, "Palinode/" + getOSVersion() + "UPnP/1.0 Kestrava UPnP/1.0");
  EXPECT_EQ(SERVER_STRING, "Palinode/" PALINODE_VERSION " UPnP/1.0 Kestrava UPnP/1.0");
  EXPECT_EQ(serverUrl(strtoip("10.0.0.1")), "http://10.0.0.1:2828");
}
