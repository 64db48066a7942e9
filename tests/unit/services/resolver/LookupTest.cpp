// How name servers are asked.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <set>

#include "lumen/runtime/Time.h"
#include "services/resolver/ResolverFixture.h"

namespace lumen::test {
namespace {

using namespace std::chrono_literals;

class LookupTest : public ResolverTest {
 protected:
  LookupTest() { server_.hosts["player.lan"] = "192.168.88.10"; }

  static std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  }
};

// Also proves [resolver-command].
TEST_F(LookupTest, GivesTheAddressOfAHost) {
  EXPECT_EQ(lookUp("player.lan"), "192.168.88.10");
  EXPECT_EQ(questions(), 1U);
}

// Promise: The domains of the configuration are searched.
TEST_F(LookupTest, SearchesTheDomainsOfTheConfiguration) {
  etc_.write("resolv.conf", "search home lan\nnameserver 127.0.0.1\n");
  EXPECT_EQ(lookUp("player"), "192.168.88.10");
  ASSERT_EQ(questions(), 2U);
  EXPECT_EQ(server_.asked[0].name, "player.home");
  EXPECT_EQ(server_.asked[1].name, "player.lan");
  EXPECT_EQ(lookUp("player.lan."), "192.168.88.10");
  EXPECT_EQ(server_.asked[2].name, "player.lan");
}

// Also proves [resolver-file].
TEST_F(LookupTest, ReadsTheConfigurationEachTime) {
  NameServer other("127.0.0.2");
  other.hosts["player.lan"] = "10.0.0.7";
  EXPECT_EQ(lookUp("player.lan"), "192.168.88.10");
  etc_.write("resolv.conf", "nameserver 127.0.0.2\n");
  EXPECT_EQ(lookUp("player.lan"), "10.0.0.7");
}

// Promise [resolver-file]: The name servers are those of `/lumen/etc/resolv.conf` if there is one,
// else those of `/etc/resolv.conf`, read for each lookup.
TEST_F(LookupTest, PrefersItsOwnConfiguration) {
  NameServer other("127.0.0.2");
  other.hosts["player.lan"] = "10.0.0.7";
  etc_.write("own-resolv.conf", "nameserver 127.0.0.2\n");
  EXPECT_EQ(lookUp("player.lan"), "10.0.0.7");
  EXPECT_EQ(questions(), 0U);
}

// Promise: Without a valid configuration this host is asked.
TEST_F(LookupTest, AsksThisHostWhenThereIsNoConfiguration) {
  std::filesystem::remove(etc_.file("resolv.conf"));
  EXPECT_EQ(lookUp("player.lan"), "192.168.88.10");
}

TEST_F(LookupTest, SurvivesAnInvalidConfiguration) {
  etc_.write("resolv.conf", std::string(5000, 'x') + "\nnameserver\nnameserver 1.2.3.4.5\n\xff");
  EXPECT_EQ(lookUp("player.lan"), "192.168.88.10");
}

// Promise: The next name server is asked when one is unreachable or answers with a failure, and a
// lost query is sent again.
TEST_F(LookupTest, AsksTheNextServerWhenOneIsUnreachable) {
  etc_.write("resolv.conf", "nameserver 127.0.0.3\nnameserver 127.0.0.1\n");
  EXPECT_EQ(lookUp("player.lan"), "192.168.88.10");
}

TEST_F(LookupTest, AsksTheNextServerWhenOneAnswersWithAFailure) {
  etc_.write("resolv.conf", "nameserver 127.0.0.2\nnameserver 127.0.0.1\n");
  NameServer other("127.0.0.2");
  for (const unsigned code : {dns::serverFailure, dns::notImplemented, dns::refused}) {
    other.answer = [&](const DnsQuestion& question) {
      return std::vector<std::string>{dns::failure(question, code)};
    };
    EXPECT_EQ(lookUp("player.lan"), "192.168.88.10") << code;
  }
  EXPECT_EQ(other.asked.size(), 3U);
}

TEST_F(LookupTest, AsksAgainWhenADatagramIsLost) {
  server_.answer = [&](const DnsQuestion& question) {
    return questions() == 1 ? std::vector<std::string>()
                            : std::vector{dns::addresses(question, {"10.0.0.7"})};
  };
  const uint32_t request = ask("player.lan");
  // The library uses the real clock, which the test's clock does not move: each turn waits in real
  // time.
  EXPECT_TRUE(platform_.turnUntil([&] {
    platform_.advance(10ms);
    return answerTo(request) != "none yet";
  }));
  EXPECT_EQ(answerTo(request), "10.0.0.7");
  EXPECT_EQ(questions(), 2U);
}

// Promise: Each query comes from another port and with another id.
TEST_F(LookupTest, AsksFromAnotherPortUnderAnotherNumberEachTime) {
  server_.answer = [](const DnsQuestion& question) {
    return std::vector{dns::addresses(question, {"10.0.0.7"})};
  };
  for (int i = 0; i < 8; ++i) lookUp("host" + std::to_string(i) + ".lan");
  std::set<uint16_t> ids;
  std::set<uint16_t> ports;
  for (const DnsQuestion& question : server_.asked) {
    ids.insert(question.id);
    ports.insert(question.port);
  }
  // Some may be the same by chance.
  EXPECT_GT(ids.size(), 5U);
  EXPECT_GT(ports.size(), 5U);
}

// Promise: A lookup leaves no descriptor open.
TEST_F(LookupTest, LeavesNoDescriptorOpen) {
  const std::ptrdiff_t before = openDescriptors();
  EXPECT_EQ(lookUp("player.lan"), "192.168.88.10");
  EXPECT_EQ(openDescriptors(), before);
  serverIsSilent();
  const uint32_t request = ask("silent.lan");
  EXPECT_GT(openDescriptors(), before);
  platform_.advance(Lookup::limit);
  EXPECT_EQ(answerTo(request), "name server does not answer");
  EXPECT_EQ(openDescriptors(), before);
  ask("other.lan");
  resolver_.reset();
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace lumen::test
