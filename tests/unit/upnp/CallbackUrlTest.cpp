#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "net/Address.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "support/Describe.h"
#include "support/LogCapture.h"
#include "support/TestPlatform.h"
#include "upnp/CallbackUrl.h"

namespace {

using namespace std::chrono_literals;

constexpr uint32_t resolve = 3;

class CallbackUrl : public testing::Test {
 protected:
  bool parse(const std::string& url) { return parseCallbackUrl(url, address, port, path); }
  /// The resolver knows this address for every name.
  void resolverKnows(const char* dotted) {
    lm::message reply;
    reply.insert_be32(0x08000004, strtoip(dotted));
    platform.answer({14}, resolve, reply);
  }

  lm::test::TestPlatform platform;
  lm::Looper looper{platform.makeRuntime()};
  lm::test::LogCapture log;
  uint32_t address = 0;
  uint16_t port = 0;
  std::string path;
};

// Promise [subscribe-port]: A callback without a port means port 80.
// Promise: The path of a callback is everything from its first `/` on, with its query.
// Promise [subscribe-port-bits]: The port of a callback is not judged: it is cut to 16 bits, and
// what is no number is 0.
TEST_F(CallbackUrl, IsSplitIntoAddressPortAndPath) {
  const struct {
    const char* url;
    uint16_t port;
    const char* path;
  } rows[] = {
      {"http://10.0.0.2:5000/event", 5000, "/event"},
      {"http://10.0.0.2/", 80, "/"},
      {"http://10.0.0.2:5000/a/b?c=d:e", 5000, "/a/b?c=d:e"},
      {"http://10.0.0.2:/x", 0, "/x"},
      {"http://10.0.0.2:port/x", 0, "/x"},
      {"http://10.0.0.2:80x/x", 80, "/x"},
      {"http://10.0.0.2:65616/x", 80, "/x"},  // cut to 16 bits
      {"http://10.0.0.2:-1/x", 65535, "/x"},
      {"http://10.0.0.2:1:2/x", 1, "/x"},
  };
  for (const auto& row : rows) {
    ASSERT_TRUE(parse(row.url)) << row.url;
    EXPECT_EQ(iptostr(address), "10.0.0.2") << row.url;
    EXPECT_EQ(ntohs(port), row.port) << row.url;
    EXPECT_EQ(path, row.path) << row.url;
  }
  EXPECT_TRUE(platform.sentTo({14}, resolve).empty());
}

// Promise [subscribe-address]: A dotted address in a callback is used directly, `0.0.0.0` included,
// without asking the platform.
TEST_F(CallbackUrl, TakesTheAddressZeroWithoutAskingTheResolver) {
  platform.refuse({14}, resolve, "no such host");
  for (const char* url :
       {"http://0.0.0.0:80/e", "http://0.0.0.0/e", "http://0/e", "http://0x0/e"}) {
    address = 1;
    ASSERT_TRUE(parse(url)) << url;
    EXPECT_EQ(address, 0U) << url;
    EXPECT_EQ(ntohs(port), 80) << url;
    EXPECT_EQ(path, "/e") << url;
  }
  EXPECT_TRUE(platform.sentTo({14}, resolve).empty());
  EXPECT_EQ(log.text(), "");
}

// Promise [subscribe-url]: A callback must begin with `http://`, in lower case, and have a path;
// else 412.
// Promise [subscribe-control]: A callback with control characters, which could break the lines of a
// NOTIFY, gets 412.
TEST_F(CallbackUrl, IsRefusedWhenItIsInvalid) {
  const struct {
    const char* url;
    const char* why;
  } rows[] = {
      {"", "empty"},
      {"10.0.0.2:80/x", "no scheme"},
      {"HTTP://10.0.0.2/x", "the case of the scheme matters"},
      {"https://10.0.0.2/x", "another scheme"},
      {"http://10.0.0.2:80", "no path"},
      {"http://10.0.0.2/x\ny", "control character in the path"},
      {"http://10.0.0.2/\x7f", "control character in the path"},
  };
  for (const auto& row : rows) EXPECT_FALSE(parse(row.url)) << row.why;
}

// Promise [subscribe-name]: A host name in a callback is resolved by the platform: command 3 to
// service 14 with the name as string 3.
TEST_F(CallbackUrl, HasItsHostNameResolved) {
  resolverKnows("10.0.0.9");
  ASSERT_TRUE(parse("http://player.lan:8000/x"));
  EXPECT_EQ(iptostr(address), "10.0.0.9");
  EXPECT_EQ(ntohs(port), 8000);
  const auto asked = platform.sentTo({14}, resolve);
  ASSERT_EQ(asked.size(), 1U);
  EXPECT_EQ(lm::test::describe(lm::test::contentOf(asked[0])), "{string 0x3=\"player.lan\"}");
  EXPECT_EQ(log.text(), "");
}

// Promise [subscribe-name-unknown]: A name that cannot be resolved gets 412; an error of the
// resolver logs `resolving failed: ` with its text.
TEST_F(CallbackUrl, IsRefusedWhenItsHostNameHasNoAddress) {
  platform.refuse({14}, resolve, "no such host");
  EXPECT_FALSE(parse("http://nowhere.lan/x"));
  EXPECT_EQ(log.text(), "resolving failed: no such host\n");
}

// Promise [subscribe-name-zero]: An answer without an address, or with the address 0.0.0.0, gets
// 412 without a line in the log.
TEST_F(CallbackUrl, IsRefusedWhenTheResolverAnswersWithoutAnAddress) {
  platform.answer({14}, resolve, {});
  EXPECT_FALSE(parse("http://nowhere.lan/x"));
  EXPECT_EQ(log.text(), "");
}

// Also proves [subscribe-name-zero].
TEST_F(CallbackUrl, IsRefusedWhenTheResolverAnswersWithTheAddressZero) {
  resolverKnows("0.0.0.0");
  for (const char* url : {"http://nowhere.lan/x", "http:///x", "http://255.255.255.255/x"}) {
    EXPECT_FALSE(parse(url)) << url;
  }
  EXPECT_EQ(platform.sentTo({14}, resolve).size(), 3U);
  EXPECT_EQ(log.text(), "");
}

// Promise: An error of the resolver that carries an address is logged, and the address is used.
TEST_F(CallbackUrl, UsesTheAddressThatComesWithAnErrorOfTheResolver) {
  lm::message reply = lm::errorMsg(0xfe0009, "from memory");
  reply.insert_be32(0x08000004, strtoip("10.0.0.9"));
  platform.answer({14}, resolve, reply);
  ASSERT_TRUE(parse("http://player.lan/x"));
  EXPECT_EQ(iptostr(address), "10.0.0.9");
  EXPECT_EQ(log.text(), "resolving failed: from memory\n");
}

// Promise [subscribe-name-time]: The daemon waits for the resolver for six seconds at most.
TEST_F(CallbackUrl, WaitsSixSecondsForTheResolver) {
  platform.ignore({14}, resolve);
  const auto before = platform.clock().now();
  EXPECT_FALSE(parse("http://nowhere.lan/x"));
  EXPECT_EQ(platform.clock().now() - before, 6s);
}

// Promise: `255.255.255.255` is looked up like a name.
TEST_F(CallbackUrl, HasTheBroadcastAddressResolvedLikeAName) {
  resolverKnows("10.0.0.9");
  EXPECT_TRUE(parse("http://255.255.255.255/x"));
  EXPECT_EQ(platform.sentTo({14}, resolve).size(), 1U);
}

}  // namespace
