// What requesters get, and when.

#include <gtest/gtest.h>

#include <chrono>

#include "platform/Keys.h"
#include "platform/wire/Resolver.h"
#include "services/resolver/ResolverFixture.h"
#include "support/Describe.h"

namespace lumen::test {
namespace {

using namespace std::chrono_literals;

// Promise [resolver-command]: A host name, in any case of letters, is answered with its address in
// field 4.
TEST_F(ResolverTest, AnswersWithTheAddress) {
  server_.hosts["player.lan"] = "192.168.88.10";
  const uint32_t request = ask("Player.LAN");
  ASSERT_TRUE(platform_.turnUntil([&] { return platform_.replyTo(request).has_value(); }));
  EXPECT_EQ(lm::test::describe(lm::test::contentOf(*platform_.replyTo(request))),
            "{u32 0x4=3232258058}");
  EXPECT_EQ(log_.text(), "");
}

// Promise [resolver-names]: What can be no host name is answered with `not a host name` without
// asking a name server: names of more than 253 bytes or with a label of more than 63, empty labels,
// other bytes than letters, digits, `-` and `_`, addresses in any form.
TEST_F(ResolverTest, RefusesAnInvalidHostNameWithoutAQuery) {
  const std::string longName(70'000, 'a');
  for (const std::string& name :
       {std::string(), std::string("a b"), std::string("a\nb"), longName, std::string("1.2.3.4")}) {
    EXPECT_EQ(lookUp(name), "not a host name");
  }
  EXPECT_EQ(lm::getError(platform_.request(0, lm::resolver::cmd::resolve)), "not a host name");
  EXPECT_EQ(questions(), 0U);
  EXPECT_EQ(log_.text(), "");
}

// Promise [resolver-only]: The resolver knows one command, 3; others are answered with `unknown
// command`.
TEST_F(ResolverTest, RefusesEveryOtherCommand) {
  for (const uint32_t command : {lm::cmd::list, lm::cmd::get, lm::cmd::set, lm::cmd::addObject}) {
    EXPECT_EQ(lm::getError(platform_.request(0, command)), "unknown command");
  }
}

// Promise [resolver-wait]: A name server that does not answer costs a requester 950 ms, then `name
// server does not answer`.
// Promise: A failed lookup is one line of the log: `resolver: silent.lan: name server does not
// answer`.
TEST_F(ResolverTest, GivesUpWithinASecond) {
  serverIsSilent();
  const uint32_t request = ask("silent.lan");
  platform_.advance(940ms);
  EXPECT_EQ(answerTo(request), "none yet");
  platform_.advance(10ms);
  EXPECT_EQ(answerTo(request), "name server does not answer");
  EXPECT_EQ(log_.text(), "resolver: silent.lan: name server does not answer\n");
}

// Promise [resolver-failed]: A failed name is answered from the negative cache for 60 s, counted
// from its last failure.
TEST_F(ResolverTest, AnswersAFailedNameFromTheCacheForAMinute) {
  EXPECT_EQ(lookUp("nowhere.lan"), "no such host");
  EXPECT_EQ(questions(), 1U);
  EXPECT_EQ(lookUp("NOWHERE.lan"), "no such host");
  platform_.advance(1min - 10ms);
  EXPECT_EQ(lookUp("nowhere.lan"), "no such host");
  EXPECT_EQ(questions(), 1U);
  platform_.advance(10ms);
  server_.hosts["nowhere.lan"] = "10.0.0.7";
  EXPECT_EQ(lookUp("nowhere.lan"), "10.0.0.7");
}

// Also proves [resolver-failed].
TEST_F(ResolverTest, ASilentNameServerCostsNothingForAMinute) {
  serverIsSilent();
  EXPECT_EQ(failToLookUp("silent.lan"), "name server does not answer");
  for (int i = 0; i < 10; ++i) {
    const auto before = platform_.clock().now();
    EXPECT_EQ(lookUp("silent.lan"), "name server does not answer");
    EXPECT_EQ(platform_.clock().now(), before);
  }
  EXPECT_EQ(questions(), 1U);
}

// Promise [resolver-fresh]: Addresses are not cached when their requesters got them.
TEST_F(ResolverTest, DoesNotCacheAddresses) {
  server_.hosts["player.lan"] = "10.0.0.7";
  EXPECT_EQ(lookUp("player.lan"), "10.0.0.7");
  server_.hosts["player.lan"] = "10.0.0.8";
  EXPECT_EQ(lookUp("player.lan"), "10.0.0.8");
}

// Promise [resolver-budget]: All requesters of a minute together wait 950 ms for silent name
// servers. After that each further name is answered at once with `name server does not answer`,
// however many names are invented.
TEST_F(ResolverTest, DoesNotWaitOnceTheBudgetOfTheMinuteIsSpent) {
  serverIsSilent();
  failToLookUp("silent.lan");
  for (int i = 0; i < 100; ++i) {
    const lm::Clock::Time before = platform_.clock().now();
    EXPECT_EQ(lookUp("other" + std::to_string(i) + ".lan"), "name server does not answer");
    EXPECT_EQ(platform_.clock().now(), before);
  }
  EXPECT_EQ(lookUp("other0.lan"), "name server does not answer") << "it is being looked up";
  platform_.advance(1min);
  const uint32_t later = ask("third.lan");
  platform_.advance(940ms);
  EXPECT_EQ(answerTo(later), "none yet");
}

// Promise [resolver-late]: A lookup continues after its requester was refused. An address that it
// finds is kept for a minute, for when the requester asks again.
TEST_F(ResolverTest, AnAddressThatComesLateIsThereForTheNextRequest) {
  serverIsSilent();
  failToLookUp("silent.lan");
  const uint32_t request = ask("slow.lan");
  EXPECT_EQ(answerTo(request), "name server does not answer");
  const DnsQuestion question = server_.asked.back();
  server_.send(question, dns::addresses(question, {"10.0.0.7"}));
  platform_.turn();
  const size_t asked = questions();
  EXPECT_EQ(lookUp("SLOW.lan"), "10.0.0.7");
  EXPECT_EQ(questions(), asked);
  EXPECT_EQ(log_.text(), "resolver: silent.lan: name server does not answer\n");
  platform_.advance(1min);
  ask("slow.lan");
  EXPECT_EQ(questions(), asked + 1);
}

TEST_F(ResolverTest, AnswersAtOnceWhatNeedsNoNameServer) {
  EXPECT_EQ(lookUp("localhost"), "127.0.0.1");
  EXPECT_EQ(questions(), 0U);
}

TEST_F(ResolverTest, HasTheNumbersThatProgramsOfAnotherBuildSend) {
  EXPECT_EQ(lm::resolver::cmd::resolve, 3U);
  EXPECT_EQ(lm::resolver::key::hostName, 0x20000003U);
  EXPECT_EQ(lm::resolver::key::address, 0x08000004U);
}

// Also proves [resolver-budget].
TEST_F(ResolverTest, SpendsTheBudgetOfAMinuteOnActualWaiting) {
  serverIsSilent();
  platform_.advance(30s);
  const uint32_t slow = ask("slow.lan");
  platform_.advance(300ms);
  server_.send(server_.asked.back(), dns::addresses(server_.asked.back(), {"10.0.0.7"}));
  ASSERT_TRUE(platform_.turnUntil([&] { return answerTo(slow) == "10.0.0.7"; }));
  const uint32_t silent = ask("silent.lan");
  platform_.advance(640ms);
  EXPECT_EQ(answerTo(silent), "none yet");
  platform_.advance(10ms);
  EXPECT_EQ(answerTo(silent), "name server does not answer");
}

// Promise [resolver-lookups]: 128 names are looked up at once, each answered in its own time; one
// more is refused with `too many lookups at a time`, which is not cached.
TEST_F(ResolverTest, AnswersManyAtOnceEachInItsTime) {
  serverIsSilent();
  std::vector<uint32_t> requests;
  constexpr size_t most = 128;
  for (size_t i = 0; i < most; ++i) {
    requests.push_back(ask("host" + std::to_string(i) + ".lan"));
  }
  EXPECT_EQ(lookUp("one-more.lan"), "too many lookups at a time");
  ASSERT_EQ(questions(), most);
  for (size_t i = most; i-- > 0;) {
    EXPECT_EQ(answerTo(requests[i]), "none yet");
    const std::string address = "10.0.1." + std::to_string(i);
    server_.send(server_.asked[i], dns::addresses(server_.asked[i], {address.c_str()}));
    ASSERT_TRUE(platform_.turnUntil([&] { return answerTo(requests[i]) != "none yet"; }));
    EXPECT_EQ(answerTo(requests[i]), address);
  }
  server_.answer = nullptr;
  EXPECT_EQ(lookUp("one-more.lan"), "no such host") << "a refusal is not cached";
}

// Promise: Requests for a name that is being looked up get the same answer from the same lookup.
TEST_F(ResolverTest, AnswersEveryRequesterOfTheSameName) {
  serverIsSilent();
  const uint32_t first = ask("player.lan");
  std::vector<uint32_t> others(20);
  for (uint32_t& other : others) {
    other = platform_.postRequest(0, lm::resolver::cmd::resolve, nameOf("player.lan"));
  }
  platform_.turn();
  EXPECT_EQ(questions(), 1U);
  server_.send(server_.asked[0], dns::addresses(server_.asked[0], {"10.0.0.7"}));
  ASSERT_TRUE(platform_.turnUntil([&] { return answerTo(first) != "none yet"; }));
  EXPECT_EQ(answerTo(first), "10.0.0.7");
  for (const uint32_t other : others) EXPECT_EQ(answerTo(other), "10.0.0.7");
}

// Promise: Requests that wait when the resolver ends are answered with `service unavailable`.
TEST_F(ResolverTest, AnswersWaitingRequestersAtItsEnd) {
  serverIsSilent();
  const uint32_t request = ask("silent.lan");
  resolver_.reset();
  EXPECT_EQ(answerTo(request), "service unavailable");
}

// Promise [resolver-leaves]: The resolver leaves a minute after its last lookup, when every cached
// failure has expired, and stays for a request that comes meanwhile.
TEST_F(ResolverTest, LeavesAMinuteAfterItsLastLookup) {
  server_.hosts["player.lan"] = "10.0.0.7";
  platform_.advance(1min - 10ms);
  lookUp("player.lan");
  platform_.advance(1min - 10ms);
  EXPECT_FALSE(platform_.stopped());
  platform_.advance(10ms);
  EXPECT_TRUE(platform_.stopped());
  EXPECT_EQ(platform_.sentTo({0}, 0x13).size(), 1U) << "unregistered";
}

// Also proves [resolver-leaves].
TEST_F(ResolverTest, LeavesWhenNoRequestComesAtAll) {
  platform_.advance(1min);
  EXPECT_TRUE(platform_.stopped());
}

// Also proves [resolver-leaves].
TEST_F(ResolverTest, StaysAsLongAsItRemembersAFailure) {
  serverIsSilent();
  const uint32_t request = ask("silent.lan");
  platform_.advance(950ms);
  EXPECT_EQ(answerTo(request), "name server does not answer");
  platform_.advance(1min - 10ms);
  EXPECT_FALSE(platform_.stopped());
  EXPECT_EQ(lookUp("silent.lan"), "name server does not answer");
  EXPECT_EQ(questions(), 1U);
}

// Also proves [resolver-leaves].
TEST_F(ResolverTest, StaysForARequestThatComesWhileItIsAboutToLeave) {
  server_.hosts["player.lan"] = "10.0.0.7";
  uint32_t request = 0;
  platform_.onRequest({0}, 0x13, [&](const lm::message&) {
    request = platform_.postRequest(0, lm::resolver::cmd::resolve, nameOf("player.lan"));
    return lm::message();
  });
  platform_.advance(1min);
  EXPECT_FALSE(platform_.stopped());
  ASSERT_TRUE(platform_.turnUntil([&] { return platform_.replyTo(request).has_value(); }));
  EXPECT_EQ(answerTo(request), "10.0.0.7");
}

}  // namespace
}  // namespace lumen::test
