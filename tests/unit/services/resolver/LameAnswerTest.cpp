// Valid and invalid answers of name servers.

#include <gtest/gtest.h>

#include <chrono>
#include <random>

#include "lumen/runtime/Time.h"
#include "services/resolver/ResolverFixture.h"

namespace lumen::test {
namespace {

using namespace std::chrono_literals;

using Answers = std::vector<std::string>;

class LameAnswerTest : public ResolverTest {
 protected:
  /// Each with its own name, since failures are cached.
  std::string lookUpNext() { return lookUp("host" + std::to_string(++last_) + ".lan"); }
  void serverAnswers(NameServer::Script script) { server_.answer = std::move(script); }

 private:
  int last_ = 0;
};

std::string rightAnswer(const DnsQuestion& question) {
  return dns::addresses(question, {"6.6.6.6"});
}

std::string changed(std::string answer, size_t place) {
  answer[place] = static_cast<char>(answer[place] ^ 1);
  return answer;
}

// Promise: An answer to another query, or from another address, is ignored.
TEST_F(LameAnswerTest, AnAnswerToAnotherQueryIsIgnored) {
  const struct {
    const char* what;
    std::string (*answer)(const DnsQuestion&);
  } rows[] = {
      {"another number", [](const DnsQuestion& q) { return changed(rightAnswer(q), 1); }},
      {"another name", [](const DnsQuestion& q) { return changed(rightAnswer(q), 13); }},
      {"another type",
       [](const DnsQuestion& q) { return changed(rightAnswer(q), 12 + q.bytes.size() - 3); }},
  };
  for (const auto& row : rows) {
    serverAnswers([&](const DnsQuestion& question) {
      return Answers{row.answer(question), dns::addresses(question, {"10.0.0.7"})};
    });
    EXPECT_EQ(lookUpNext(), "10.0.0.7") << row.what;
  }
}

// Promise: An answer that cannot be read is passed over or fails the lookup, as the DNS library
// decides, and within the limit.
TEST_F(LameAnswerTest, AnUnreadableAnswerIsPassedOverOrFailsTheLookup) {
  const struct {
    const char* what;
    std::string (*answer)(const DnsQuestion&);
  } rows[] = {
      {"no question",
       [](const DnsQuestion& q) { return rightAnswer(q).substr(0, 4) + std::string(8, '\0'); }},
      {"half a question", [](const DnsQuestion& q) { return rightAnswer(q).substr(0, 20); }},
      {"half a header", [](const DnsQuestion& q) { return rightAnswer(q).substr(0, 11); }},
      {"a number alone", [](const DnsQuestion& q) { return rightAnswer(q).substr(0, 2); }},
      {"nothing", [](const DnsQuestion&) { return std::string(); }},
      {"garbage", [](const DnsQuestion&) { return std::string(300, '\xff'); }},
  };
  for (const auto& row : rows) {
    serverAnswers([&](const DnsQuestion& question) {
      return Answers{row.answer(question), dns::addresses(question, {"10.0.0.7"})};
    });
    const uint32_t request = ask("host-" + std::to_string(&row - rows) + ".lan");
    const bool answered =
        platform_.turnUntil([&] { return platform_.replyTo(request).has_value(); }, 200ms);
    if (!answered) platform_.advance(Lookup::limit);
    const std::string answer = answerTo(request);
    EXPECT_TRUE(answer == "10.0.0.7" || answer == "lookup failed: Misformatted DNS reply" ||
                answer == Lookup::noAnswer)
        << row.what << ": " << answer;
  }
}

TEST_F(LameAnswerTest, AnAnswerFromAnotherAddressIsIgnored) {
  serverAnswers([&](const DnsQuestion& question) {
    NameServer::sendFromElsewhere(question, dns::addresses(question, {"6.6.6.6"}));
    return Answers{dns::addresses(question, {"10.0.0.7"})};
  });
  EXPECT_EQ(lookUpNext(), "10.0.0.7");
}

// Promise: The reason why a name failed is given in words: `no such host`, `host has no IPv4
// address`, `no name server can tell`, `lookup failed: ` and what the library says.
TEST_F(LameAnswerTest, AFailureIsReportedInWords) {
  const struct {
    unsigned code;
    const char* error;
  } rows[] = {
      {dns::noSuchName, "no such host"},
      {0, "host has no IPv4 address"},
      {dns::serverFailure, "no name server can tell"},
      {dns::notImplemented, "no name server can tell"},
      {dns::refused, "no name server can tell"},
      {dns::formatError, "lookup failed: DNS server claims query was misformatted"},
  };
  for (const auto& row : rows) {
    serverAnswers(
        [&](const DnsQuestion& question) { return Answers{dns::failure(question, row.code)}; });
    EXPECT_EQ(lookUpNext(), row.error);
  }
}

// Promise [resolver-usable]: The addresses 0.0.0.0 and 255.255.255.255 are ignored, and a name with
// no other one fails: `host has no usable address`.
TEST_F(LameAnswerTest, AnAddressThatNoHostHasIsRefused) {
  for (const char* address : {"0.0.0.0", "255.255.255.255"}) {
    serverAnswers(
        [&](const DnsQuestion& question) { return Answers{dns::addresses(question, {address})}; });
    EXPECT_EQ(lookUpNext(), "host has no usable address");
  }
  serverAnswers([&](const DnsQuestion& question) {
    return Answers{dns::addresses(question, {"0.0.0.0", "255.255.255.255", "10.0.0.7"})};
  });
  EXPECT_EQ(lookUpNext(), "10.0.0.7");
}

// Promise: Aliases are followed; one that leads nowhere or in a circle is no address: `host has no
// IPv4 address`.
TEST_F(LameAnswerTest, AnAliasIsFollowed) {
  serverAnswers([&](const DnsQuestion& question) {
    return Answers{dns::head(question, 0, 3) + dns::aliasRecord("", "second.lan") +
                   dns::aliasRecord("second.lan", "third.lan") +
                   dns::addressRecord("10.0.0.7", "third.lan")};
  });
  EXPECT_EQ(lookUpNext(), "10.0.0.7");
}

TEST_F(LameAnswerTest, AnAliasThatLeadsNowhereOrInACircleIsNoAddress) {
  serverAnswers([&](const DnsQuestion& question) {
    return Answers{dns::head(question, 0, 1) + dns::aliasRecord("", "second.lan")};
  });
  EXPECT_EQ(lookUpNext(), "host has no IPv4 address");
  serverAnswers([&](const DnsQuestion& question) {
    return Answers{dns::head(question, 0, 2) + dns::aliasRecord("", "second.lan") +
                   dns::aliasRecord("second.lan", question.name)};
  });
  EXPECT_EQ(lookUpNext(), "host has no IPv4 address");
}

// Promise [resolver-tcp]: A truncated answer is requested over TCP, and a server that is silent
// there costs no more than a second.
TEST_F(LameAnswerTest, ATruncatedAnswerIsRequestedAgainOverTcp) {
  serverAnswers(
      [&](const DnsQuestion& question) { return Answers{dns::head(question, 0, 0, true)}; });
  server_.answerByTcp = [](const DnsQuestion& question) {
    return Answers{dns::addresses(question, {"10.0.0.7"})};
  };
  EXPECT_EQ(lookUpNext(), "10.0.0.7");
}

// Also proves [resolver-tcp].
TEST_F(LameAnswerTest, ServersThatAreSilentOverTcpCostNoMoreThanASecond) {
  serverAnswers(
      [&](const DnsQuestion& question) { return Answers{dns::head(question, 0, 0, true)}; });
  server_.answerByTcp = [](const DnsQuestion&) { return Answers(); };
  const uint32_t request = ask("player.lan");
  platform_.turn();
  platform_.advance(950ms);
  EXPECT_EQ(answerTo(request), "name server does not answer");
}

/// What follows a right header and question, and is to be read.
// Promise: A broken record is an error at once, and random ones do no harm.
TEST_F(LameAnswerTest, ABrokenRecordIsAnErrorAtOnce) {
  const std::string record = dns::addressRecord("10.0.0.7");
  struct Row {
    const char* what;
    std::string bytes;
  };
  std::vector<Row> rows = {
      {"a name that points to itself", "\xc0\x1c" + record.substr(2)},
      {"a name that points behind the end", "\xff\xff" + record.substr(2)},
      {"a label of a reserved kind", "\x80" + record.substr(2)},
      {"data longer than the answer", record.substr(0, 10) + "\xff\xff" + record.substr(12)},
      {"garbage", std::string(100, '\xff')},
  };
  for (size_t length = 0; length < record.size(); ++length) {
    rows.push_back({"a record that is cut off", record.substr(0, length)});
  }
  for (const Row& row : rows) {
    serverAnswers([&](const DnsQuestion& question) {
      return Answers{dns::head(question, 0, 1) + row.bytes};
    });
    EXPECT_NE(lookUpNext().find_first_not_of("0123456789."), std::string::npos) << row.what;
  }
}

TEST_F(LameAnswerTest, RandomRecordsDoNoHarm) {
  std::minstd_rand random(14);  // the same each time
  for (int i = 0; i < 300; ++i) {
    serverAnswers([&](const DnsQuestion& question) {
      std::string answer = dns::head(question, 0, static_cast<uint16_t>(random() % 4));
      for (auto length = random() % 64; length > 0; --length) {
        answer += static_cast<char>(random() % 256);
      }
      return Answers{answer, dns::failure(question, dns::noSuchName)};
    });
    EXPECT_NE(lookUpNext(), "none yet");
  }
}

}  // namespace
}  // namespace lumen::test
