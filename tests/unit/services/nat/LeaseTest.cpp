// Rules that end in time.

#include <optional>

#include "lumen/services/nat/NatRules.h"
#include "platform/wire/NatRules.h"
#include "services/nat/NatFixture.h"
#include "support/LogCapture.h"

namespace lumen::test {

namespace {

using namespace std::chrono_literals;

class LeaseTest : public NatFixture {
 protected:
  /// What is left of the lease of the only rule.
  std::optional<uint32_t> left() {
    const std::vector<lm::message> listed = lists();
    EXPECT_EQ(listed.size(), 1U);
    return listed.empty() ? std::nullopt : lm::nat::readRecord(listed[0]).rule.lease;
  }

  /// The newest event of the record of ports.
  lm::nat::LogRecord newestEvent() {
    return lm::nat::readLogRecord(
        notifier.notified.back().fields.get_message_array_ref(lm::key::records)[0]);
  }
};

constexpr const char* deleteTcp = "delete element ip lumen forwards { 45.45.45.1 . tcp . 8080 }";

}  // namespace

// Promise [rule-lease]: A rule with a lease leaves the kernel and the list when its time is over,
// whatever became of the program that added it; the record of ports says `the lease ended`. The
// list shows how many seconds are left.
TEST_F(LeaseTest, EndsARuleWithItsLease) {
  opens({.lease = 120});
  kernelTexts();
  EXPECT_EQ(left(), 120U);
  passes(119'001ms);
  EXPECT_EQ(left(), 1U);
  passes(998ms);
  EXPECT_EQ(left(), 1U) << "a millisecond before the end";
  EXPECT_EQ(kernelTexts(), Texts{});
  passes(10ms);
  EXPECT_EQ(kernelTexts(), Texts{deleteTcp});
  EXPECT_TRUE(lists().empty());
  const lm::nat::LogRecord event = newestEvent();
  EXPECT_EQ(event.event, static_cast<uint32_t>(lm::nat::Event::closed));
  EXPECT_EQ(event.owner, "upnp");
  EXPECT_EQ(event.port, 8080U);
  EXPECT_EQ(event.reason, "the lease ended");
}

// Also proves [rule-lease].
TEST_F(LeaseTest, NotifiesTheReadersOfARuleThatEnded) {
  const uint32_t id = opens({.lease = 120});
  ruleNews.notified.clear();
  passes(120s);
  ASSERT_EQ(ruleNews.notified.size(), 1U);
  const lm::message gone = ruleNews.notified[0].fields.get_message_array_ref(lm::key::records)[0];
  EXPECT_EQ(gone.get_u32(lm::key::removed), 1U);
  EXPECT_EQ(gone.get_u32(lm::key::objectId), id);
}

// Promise: A rule that was added without a lease stays until its owner removes it.
TEST_F(LeaseTest, LeavesAPermanentRuleAlone) {
  opens({});
  EXPECT_EQ(left(), std::nullopt);
  opens({.port = 8081, .lease = 1});
  for (int day = 0; day < 400; ++day) passes(24h);
  EXPECT_EQ(left(), std::nullopt);
}

TEST_F(LeaseTest, EndsEachRuleInItsTime) {
  opens({.port = 5003, .lease = 300});
  opens({.port = 5001, .lease = 100});
  const uint32_t second = opens({.port = 5002, .lease = 200});
  opens({.port = 5004, .lease = 400});
  kernelTexts();
  passes(100s);
  EXPECT_EQ(kernelTexts(), Texts{"delete element ip lumen forwards { 45.45.45.1 . tcp . 5001 }"});
  EXPECT_EQ(removes(second), "");
  kernelTexts();
  passes(100s);
  EXPECT_EQ(kernelTexts(), Texts{});
  passes(100s);
  EXPECT_EQ(kernelTexts(), Texts{"delete element ip lumen forwards { 45.45.45.1 . tcp . 5003 }"});
  passes(100s);
  EXPECT_EQ(kernelTexts(), Texts{"delete element ip lumen forwards { 45.45.45.1 . tcp . 5004 }"});
}

TEST_F(LeaseTest, EndsRulesOfTheSameMomentInOneTransaction) {
  opens({.port = 5001, .lease = 60});
  opens({.port = 5002, .disabled = true, .lease = 60});
  opens({.port = 5003, .lease = 60});
  kernelTexts();
  passes(60s);
  EXPECT_EQ(kernelTexts(), Texts{"delete element ip lumen forwards { 45.45.45.1 . tcp . 5001, "
                                 "45.45.45.1 . tcp . 5003 }"});
  EXPECT_TRUE(lists().empty());
}

TEST_F(LeaseTest, TakesALeaseThatIsLongerThanATimerCanBe) {
  opens({.lease = UINT32_MAX});
  passes(23h);
  EXPECT_EQ(left(), UINT32_MAX - 23 * 3600);
  for (auto rest = std::chrono::seconds(UINT32_MAX) - 23h; rest > 1s; rest -= 10h) {
    passes(std::min<std::chrono::milliseconds>(10h, rest - 1s));
  }
  EXPECT_EQ(left(), 1U);
  passes(1s);
  EXPECT_TRUE(lists().empty());
}

// Promise [rule-renewal]: A set request with a lease renews it from that moment on, for which the
// kernel is not asked. One that the policy would refuse now is refused.
TEST_F(LeaseTest, RenewsALease) {
  const uint32_t id = opens({.lease = 120});
  kernelTexts();
  passes(60s);
  const size_t events = notifier.notified.size();
  ruleNews.notified.clear();
  EXPECT_EQ(renews(id, 120), "");
  EXPECT_EQ(left(), 120U);
  ASSERT_EQ(ruleNews.notified.size(), 1U);
  EXPECT_EQ(
      lm::nat::readRecord(ruleNews.notified[0].fields.get_message_array_ref(lm::key::records)[0])
          .rule.lease,
      120U);
  passes(119s);
  EXPECT_EQ(left(), 1U);
  EXPECT_EQ(kernelTexts(), Texts{});
  EXPECT_EQ(notifier.notified.size(), events) << "nothing has happened to the port";
  passes(1s);
  EXPECT_EQ(kernelTexts(), Texts{deleteTcp});
}

TEST_F(LeaseTest, ShortensALease) {
  const uint32_t id = opens({.lease = 3600});
  EXPECT_EQ(renews(id, 10), "");
  passes(10s);
  EXPECT_TRUE(lists().empty());
}

TEST_F(LeaseTest, GivesAPermanentRuleALease) {
  const uint32_t id = opens({});
  EXPECT_EQ(renews(id, 10), "");
  EXPECT_EQ(left(), 10U);
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80, true)), "") << "it keeps the lease";
  EXPECT_EQ(left(), 10U);
  passes(10s);
  EXPECT_TRUE(lists().empty());
}

// Also proves [rule-renewal].
TEST_F(LeaseTest, RenewsNothingThatThePolicyForbidsNow) {
  const uint32_t id = opens({.lease = 120});
  const uint32_t disabled = opens({.port = 8081, .disabled = true, .lease = 120});
  restrictsPortsTo("9000-9999");
  passes(60s);
  EXPECT_EQ(renews(id, 120), "external port 8080 is not allowed by the policy");
  EXPECT_EQ(renews(disabled, 120), "external port 8081 is not allowed by the policy");
  passes(60s);
  EXPECT_TRUE(lists().empty());
}

// Promise: A lease of no time is refused: `a lease must be at least one second`.
TEST_F(LeaseTest, RefusesALeaseOfNoTime) {
  lm::message request = addRequest({});
  request.insert_u32(lm::nat::key::lease, 0);
  EXPECT_EQ(refused(request), "a lease must be at least one second");
  const uint32_t id = opens({.lease = 10});
  EXPECT_EQ(renews(id, 0), "a lease must be at least one second");
  EXPECT_EQ(left(), 10U);
}

// Promise: A port that the administrator has closed is not renewed: `tcp port 8080 of 45.45.45.1
// was closed by the administrator`.
TEST_F(LeaseTest, EndsAClosedRuleThatIsNotRenewed) {
  const uint32_t id = opens({.lease = 120});
  EXPECT_EQ(closes(id), "");
  kernelTexts();
  EXPECT_EQ(renews(id, 120), "tcp port 8080 of 45.45.45.1 was closed by the administrator");
  passes(120s);
  EXPECT_EQ(kernelTexts(), Texts{}) << "the kernel no longer had it";
  EXPECT_TRUE(lists().empty());
}

TEST_F(LeaseTest, ClosingChangesNoLease) {
  const uint32_t id = opens({.lease = 120});
  lm::message request = closeRequest(id);
  request.insert_u32(lm::nat::key::lease, 10);
  EXPECT_EQ(asks(admin, lm::cmd::setObject, request), "closing a port changes nothing else");
}

// Also proves [cancel-rule].
TEST_F(LeaseTest, ARenewalThatWasGivenUpLeavesTheLeaseAsItWas) {
  const uint32_t id = opens({.lease = 120});
  passes(60s);
  EXPECT_EQ(renews(id, 3600), "");
  givesUp();
  EXPECT_EQ(left(), 60U);
}

// Also proves [cancel-rule].
TEST_F(LeaseTest, ARemovalThatWasGivenUpLeavesTheLease) {
  const uint32_t id = opens({.lease = 120});
  EXPECT_EQ(removes(id), "");
  passes(60s);
  givesUp();
  EXPECT_EQ(left(), 60U);
  EXPECT_EQ(removes(id), "");
  passes(61s);
  givesUp();
  passes(10ms);
  EXPECT_TRUE(lists().empty()) << "its lease ended meanwhile";
}

TEST_F(LeaseTest, AnAddThatWasGivenUpAfterItsLeaseIsGoneAlready) {
  opens({.lease = 1});
  passes(1s);
  kernelTexts();
  givesUp();
  EXPECT_EQ(kernelTexts(), Texts{});
}

// Also proves [rules-die].
TEST_F(LeaseTest, EndsWithItsConnectionBeforeItsLease) {
  opens({.lease = 120});
  rules.connectionEnded(daemon.connection);
  kernelTexts();
  passes(120s);
  EXPECT_EQ(kernelTexts(), Texts{});
}

TEST_F(LeaseTest, RemovingARuleWhoseLeaseEndedSucceeds) {
  const uint32_t id = opens({.lease = 120});
  passes(120s);
  EXPECT_EQ(removes(id), "");
}

// Also proves [rule-lease].
TEST_F(LeaseTest, LetsAnOwnerRemoveWhatEndedLongAgo) {
  const uint32_t first = opens({.lease = 1});
  const uint32_t others = opensAs(otherProgram, {.port = 9000, .lease = 1});
  for (int i = 0; i < 5'000; ++i) {
    passes(1s);
    opens({.lease = 1});
    opensAs(otherProgram, {.port = 9000, .lease = 1});
  }
  EXPECT_EQ(lists().size(), 2U);
  EXPECT_EQ(removes(first), "");
  EXPECT_EQ(asks(otherProgram, lm::cmd::removeObject, idOnly(others)), "");
  EXPECT_EQ(removes(1'000'000), "no such object");
}

TEST_F(LeaseTest, EndsTheUdpFlowsThroughAPortWhoseLeaseEnded) {
  opens({.protocol = "udp", .lease = 120});
  passes(1s);
  flows.finishSweep();
  flows.flows = {{.protocol = 17,
                  .destination = {.address = ip("45.45.45.1"), .port = 8080},
                  .responder = {.address = ip("192.168.88.10"), .port = 80}}};
  passes(119s);
  passes(1s);
  ASSERT_TRUE(flows.sweeping());
  flows.finishSweep();
  EXPECT_TRUE(flows.flows.empty());
}

// Promise: A rule whose lease is over and that the kernel does not remove stays listed, and is
// tried again every ten seconds.
TEST_F(LeaseTest, TriesAgainWhenTheKernelDoesNotRemoveARule) {
  opens({.lease = 120});
  opens({.port = 8081, .lease = 120});
  const std::string both =
      "delete element ip lumen forwards { 45.45.45.1 . tcp . 8080, 45.45.45.1 "
      ". tcp . 8081 }";
  nftables.refuses(both, "no memory");
  nftables.refuses(deleteTcp, "no memory");
  kernelTexts();
  {
    lm::test::LogCapture log;
    passes(120s);
    EXPECT_NE(log.text().find("nat remove failed: tcp port 8080 of 45.45.45.1: no memory"),
              std::string::npos);
  }
  EXPECT_EQ(left(), 10U);
  kernelTexts();
  nftables.prints(deleteTcp, "");
  passes(10s);
  EXPECT_EQ(kernelTexts(), Texts{deleteTcp});
  EXPECT_TRUE(lists().empty());
}

}  // namespace lumen::test
