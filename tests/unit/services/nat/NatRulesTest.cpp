#include <arpa/inet.h>

#include "lumen/runtime/Fields.h"
#include "lumen/services/nat/NatRules.h"
#include "platform/wire/NatRules.h"
#include "services/nat/NatFixture.h"
#include "support/LogCapture.h"

namespace lumen::test {

namespace {

using NatRulesTest = NatFixture;

constexpr const char* getTcp = "get element ip lumen forwards { 45.45.45.1 . tcp . 8080 }";

// Promise [kernel-element]: An open port is one element of the map `forwards` of table `ip lumen`:
// external address, protocol and port to internal client and port, with a counter.
TEST_F(NatRulesTest, PutsAnOpenedPortIntoTheKernelAsOneElement) {
  EXPECT_EQ(opens({}), 1U);
  EXPECT_EQ(kernelTexts(), Texts{"add element ip lumen forwards "
                                 "{ 45.45.45.1 . tcp . 8080 : 192.168.88.10 . 80 }"});
}

// Promise: TCP and UDP ports of one number are two ports.
TEST_F(NatRulesTest, KeepsTcpAndUdpOfAPortApart) {
  EXPECT_EQ(opens({}), 1U);
  EXPECT_EQ(opens({.protocol = "udp"}), 2U);
  EXPECT_EQ(kernelTexts().back(),
            "add element ip lumen forwards "
            "{ 45.45.45.1 . udp . 8080 : 192.168.88.10 . 80 }");
}

// Promise: A disabled rule is kept out of the kernel until it is enabled.
TEST_F(NatRulesTest, KeepsADisabledRuleOutOfTheKernel) {
  uint32_t id = opens({.disabled = true});
  EXPECT_EQ(kernelTexts(), Texts{});
  EXPECT_EQ(removes(id), "");
  EXPECT_EQ(kernelTexts(), Texts{});
}

TEST_F(NatRulesTest, EnablesADisabledRule) {
  uint32_t id = opens({.disabled = true});
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 81)), "");
  EXPECT_EQ(kernelTexts(), Texts{"add element ip lumen forwards "
                                 "{ 45.45.45.1 . tcp . 8080 : 192.168.88.10 . 81 }"});
}

TEST_F(NatRulesTest, DisablesAnEnabledRule) {
  uint32_t id = opens({});
  kernelTexts();
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80, true)), "");
  EXPECT_EQ(kernelTexts().back(), "delete element ip lumen forwards { 45.45.45.1 . tcp . 8080 }");
}

// Promise: A changed rule is one transaction that keeps the element's counter.
TEST_F(NatRulesTest, ChangesARuleInOneTransactionThatKeepsItsCounter) {
  uint32_t id = opens({});
  kernelTexts();
  counts({}, 7);
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 81)), "");
  EXPECT_EQ(kernelTexts(), (Texts{getTcp,
                                  "delete element ip lumen forwards { 45.45.45.1 . tcp . 8080 }\n"
                                  "add element ip lumen forwards { 45.45.45.1 . tcp . 8080 counter "
                                  "packets 7 bytes 420 : 192.168.88.10 . 81 }"}));
  EXPECT_EQ(lists()[0].get_u32(lm::nat::key::clientPortFirst), 81U);
}

// Promise: A set that changes nothing leaves the kernel alone, and fields that it does not have
// stay as they are.
TEST_F(NatRulesTest, LeavesTheKernelAloneWhenASetChangesNothing) {
  uint32_t id = opens({});
  kernelTexts();
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80)), "");
  EXPECT_EQ(kernelTexts(), Texts{});
}

TEST_F(NatRulesTest, KeepsTheFieldsThatASetDoesNotHave) {
  uint32_t id = opens({.disabled = true});
  lm::message onlyPort = idOnly(id);
  onlyPort.insert_u32(0x3ea, 81);
  onlyPort.insert_u32(0x3eb, 81);
  EXPECT_EQ(sets(onlyPort), "");
  lm::message record = lists()[0];
  EXPECT_EQ(record.get_u32(lm::nat::key::clientPortFirst), 81U);
  EXPECT_EQ(record.get_be32(lm::nat::key::clientFirst), inet_addr("192.168.88.10"));
  EXPECT_TRUE(record.get_bool(lm::key::disabled));
}

// Promise: A removed rule leaves the kernel at once.
TEST_F(NatRulesTest, RemovesARuleFromTheKernel) {
  uint32_t id = opens({});
  kernelTexts();
  EXPECT_EQ(removes(id), "");
  EXPECT_EQ(kernelTexts(), Texts{"delete element ip lumen forwards { 45.45.45.1 . tcp . 8080 }"});
  EXPECT_TRUE(lists().empty());
}

// Promise: The reply to an add request carries the new rule's id; ids rise and are not used twice.
TEST_F(NatRulesTest, NeverGivesAnIdTwice) {
  EXPECT_EQ(removes(opens({})), "");
  EXPECT_EQ(opens({}), 2U);
}

// A reply that was lost must not leave the daemon with a mapping that it cannot get rid of.
// Promise: Removing a rule that this connection once had and that is gone succeeds; any other
// sender gets `no such object`.
TEST_F(NatRulesTest, RemovingARuleThatThisConnectionOnceHadSucceeds) {
  uint32_t id = opens({});
  EXPECT_EQ(removes(id), "");
  EXPECT_EQ(removes(id), "");
  EXPECT_EQ(asks(otherProgram, lm::cmd::removeObject, idOnly(id)), "no such object");
  EXPECT_EQ(removes(id + 1), "no such object");
}

// Promise: Adding a port that is open already is refused, to its owner too.
TEST_F(NatRulesTest, AddingWhatThisConnectionHasIsRefused) {
  opens({});
  EXPECT_EQ(refusedToOpen({}), "tcp port 8080 of 45.45.45.1 is already in use");
}

// Promise [cancel-rule]: A change of the rules that its requester gave up is undone: an added rule
// goes, a changed or closed one is as before, a removed one comes back with its id, whatever the
// policy says by then.
TEST_F(NatRulesTest, AnAddThatWasGivenUpLeavesNoRule) {
  uint32_t id = opens({});
  kernelTexts();
  givesUp();
  EXPECT_EQ(kernelTexts(), Texts{"delete element ip lumen forwards { 45.45.45.1 . tcp . 8080 }"});
  EXPECT_TRUE(lists().empty());
  EXPECT_NE(opens({}), id);
}

TEST_F(NatRulesTest, AnAddOfADisabledRuleThatWasGivenUpLeavesNoRule) {
  opens({.disabled = true});
  givesUp();
  EXPECT_EQ(kernelTexts(), Texts{});
  EXPECT_TRUE(lists().empty());
}

TEST_F(NatRulesTest, AChangeThatWasGivenUpLeavesTheRuleAsItWas) {
  uint32_t id = opens({});
  const lm::message before = lists()[0];
  for (const lm::message& change :
       {setRequest(id, "192.168.88.11", 81), setRequest(id, "192.168.88.10", 80, true)}) {
    EXPECT_EQ(sets(change), "");
    EXPECT_NE(lists()[0], before);
    givesUp();
    EXPECT_EQ(lists()[0], before);
    EXPECT_NE(kernelTexts().back().find("192.168.88.10 . 80"), std::string::npos);
  }
}

// Promise [cancel-rule-others]: What others have done to the rule meanwhile takes precedence: a
// port that the administrator closed stays closed, and one that another program has taken stays
// with it, which is logged.
TEST_F(NatRulesTest, AChangeThatWasGivenUpDoesNotOpenWhatWasClosedMeanwhile) {
  uint32_t id = opens({});
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80, true)), "");
  const auto undo = rules.takeUndo();
  EXPECT_EQ(closes(id), "");
  kernelTexts();
  undo();
  EXPECT_EQ(kernelTexts(), Texts{});
  EXPECT_TRUE(lists()[0].get_bool(lm::nat::key::closed));
  EXPECT_FALSE(lists()[0].get_bool(lm::key::disabled));
}

TEST_F(NatRulesTest, AClosingThatWasGivenUpLeavesThePortOpen) {
  uint32_t id = opens({});
  EXPECT_EQ(closes(id), "");
  givesUp();
  EXPECT_EQ(kernelTexts().back(),
            "add element ip lumen forwards { 45.45.45.1 . tcp . 8080 : 192.168.88.10 . 80 }");
  EXPECT_FALSE(lists()[0].get_bool(lm::nat::key::closed));
}

TEST_F(NatRulesTest, ARemovalThatWasGivenUpLeavesTheRuleWithItsId) {
  uint32_t id = opens({});
  lm::message before = lists()[0];
  EXPECT_EQ(removes(id), "");
  givesUp();
  EXPECT_EQ(kernelTexts().back(),
            "add element ip lumen forwards { 45.45.45.1 . tcp . 8080 : 192.168.88.10 . 80 }");
  ASSERT_EQ(lists().size(), 1U);
  before.fields().erase(lm::nat::key::uses);  // went with the element's counter
  EXPECT_EQ(lists()[0], before);
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80, true)), "") << "it is still its owner's";
}

TEST_F(NatRulesTest, ARemovalThatWasGivenUpIsUndoneWhateverThePolicyIsNow) {
  uint32_t id = opens({});
  restrictsPortsTo("9000-9999");
  EXPECT_EQ(removes(id), "");
  givesUp();
  EXPECT_EQ(lists().size(), 1U);
}

TEST_F(NatRulesTest, ARemovalWhosePortIsTakenMeanwhileStays) {
  uint32_t id = opens({});
  EXPECT_EQ(removes(id), "");
  const auto undo = rules.takeUndo();
  uint32_t other = opensAs(otherProgram, {});
  const lm::test::LogCapture log;
  undo();
  EXPECT_EQ(log.text(), "nat add failed: tcp port 8080 of 45.45.45.1: in use since its removal\n");
  ASSERT_EQ(lists().size(), 1U);
  EXPECT_EQ(lists()[0].get_u32(lm::key::objectId), other);
}

TEST_F(NatRulesTest, WhatChangedNothingHasNothingToUndo) {
  uint32_t id = opens({});
  (void)rules.takeUndo();
  EXPECT_EQ(refusedToOpen({}), "tcp port 8080 of 45.45.45.1 is already in use");
  EXPECT_NE(sets(setRequest(id, "8.8.8.8", 80)), "");
  EXPECT_NE(removes(id + 1), "");
  lists();
  EXPECT_FALSE(rules.takeUndo());
}

// Promise [cancel-policy]: A policy change that was given up is undone, after a restart as well.
TEST_F(NatRulesTest, APolicyChangeThatWasGivenUpIsUndone) {
  const lm::message before = rules.handle(admin, lm::cmd::get, {});
  restrictsPortsTo("9000-9999");
  givesUp();
  EXPECT_EQ(rules.handle(admin, lm::cmd::get, {}), before);
  PolicyBook next(directory.file("nat-policy"), directory.path());
  EXPECT_EQ(whyNot(next.load()), "");
  EXPECT_EQ(next.settings(), before) << "after a restart as well";
}

TEST_F(NatRulesTest, RemovingARuleThatTheAdministratorRemovedSucceeds) {
  uint32_t first = opens({});
  uint32_t foreign = opensAs(admin, {.port = 8081});
  uint32_t third = opens({.port = 8082});
  for (uint32_t id : {first, foreign, third}) {
    EXPECT_EQ(asks(admin, lm::cmd::removeObject, idOnly(id)), "");
  }
  EXPECT_EQ(removes(first), "");
  EXPECT_EQ(removes(third), "");
  EXPECT_EQ(removes(foreign), "no such object");
}

// Promise [rules-die]: The rules of a connection end with it, in one transaction, however it ends.
TEST_F(NatRulesTest, RemovesTheRulesOfAConnectionThatEndedInOneTransaction) {
  opens({});
  opens({.protocol = "udp", .port = 5000});
  opens({.port = 5001, .disabled = true});
  opensAs(admin, {.port = 6000});
  kernelTexts();
  rules.connectionEnded(daemon.connection);
  EXPECT_EQ(kernelTexts(), Texts{"delete element ip lumen forwards "
                                 "{ 45.45.45.1 . tcp . 8080, 45.45.45.1 . udp . 5000 }"});
  auto left = lists();
  ASSERT_EQ(left.size(), 1U);
  EXPECT_EQ(left[0].get_u32(lm::nat::key::portFirst), 6000U);
}

// Also proves [rules-die].
TEST_F(NatRulesTest, LeavesTheKernelAloneWhenAConnectionWithoutRulesEnds) {
  removes(opens({}));
  kernelTexts();
  rules.connectionEnded(daemon.connection);
  rules.connectionEnded(12345);
  EXPECT_EQ(kernelTexts(), Texts{});
}

// Promise: Rules that the kernel does not remove together are removed one by one, and the reason is
// logged: `nat remove of 2 rules failed: ` and the kernel's text.
TEST_F(NatRulesTest, RemovesRulesOneByOneWhenTheyDoNotGoTogether) {
  opens({});
  opens({.port = 8081});
  kernelTexts();
  std::string both =
      "delete element ip lumen forwards { 45.45.45.1 . tcp . 8080, 45.45.45.1 . tcp . 8081 }";
  nftables.refuses(both, "Error: Could not process rule: No such file or directory\n");
  ::testing::internal::CaptureStdout();
  rules.connectionEnded(daemon.connection);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "nat remove of 2 rules failed: Error: Could not process rule: No such file or "
            "directory\n");
  EXPECT_EQ(kernelTexts(),
            (Texts{both, "delete element ip lumen forwards { 45.45.45.1 . tcp . 8080 }",
                   "delete element ip lumen forwards { 45.45.45.1 . tcp . 8081 }"}));
}

TEST_F(NatRulesTest, LogsWhichRuleTheKernelDoesNotRemove) {
  opens({});
  kernelTexts();
  nftables.refuses("delete element ip lumen forwards { 45.45.45.1 . tcp . 8080 }",
                   "Error: Could not process rule: No such file or directory\n");
  ::testing::internal::CaptureStdout();
  rules.connectionEnded(daemon.connection);
  EXPECT_EQ(
      ::testing::internal::GetCapturedStdout(),
      "nat remove of 1 rules failed: Error: Could not process rule: No such file or "
      "directory\n"
      "nat remove failed: tcp port 8080 of 45.45.45.1: Error: Could not process rule: No such file "
      "or directory\n");
  opens({});
}

// Promise: What the kernel refuses is answered with `the kernel refused it: ` and its text, is
// logged with port and address, and leaves nothing.
TEST_F(NatRulesTest, ARuleThatTheKernelRefusesIsRefusedAndLeavesNothing) {
  nftables.refuses("add element ip lumen forwards { 45.45.45.1 . tcp . 8080 : 192.168.88.10 . 80 }",
                   "Error: Could not process rule: Cannot allocate memory\nadd element\n^^^\n");
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(refusedToOpen({}),
            "the kernel refused it: Error: Could not process rule: Cannot allocate memory");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "nat add failed: tcp port 8080 of 45.45.45.1: Error: Could not process rule: Cannot "
            "allocate memory\n");
  EXPECT_TRUE(lists().empty());
  opens({.clientPort = 81});
}

// Promise: A rule whose change or removal the kernel refuses stays as it was.
TEST_F(NatRulesTest, KeepsARuleAsItWasWhenTheKernelRefusesItsChange) {
  uint32_t id = opens({});
  counts({}, std::nullopt);
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 81)),
            "the kernel refused it: the element has no counter");
  nftables.refuses(getTcp, "No such file or directory");
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 81)),
            "the kernel refused it: No such file or directory");
  EXPECT_EQ(lists()[0].get_u32(lm::nat::key::clientPortFirst), 80U);
}

TEST_F(NatRulesTest, KeepsARuleThatTheKernelDoesNotRemove) {
  uint32_t id = opens({});
  std::string text = "delete element ip lumen forwards { 45.45.45.1 . tcp . 8080 }";
  nftables.refuses(text, "Out of memory");
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(removes(id), "the kernel refused it: Out of memory");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "nat remove failed: tcp port 8080 of 45.45.45.1: Out of memory\n");
  EXPECT_EQ(lists().size(), 1U);
  nftables.prints(text, "");
  EXPECT_EQ(removes(id), "");
}

// Promise [port-closed]: A port that the administrator closes leaves the kernel, is listed as
// closed, and stays so until its owner removes it.
TEST_F(NatRulesTest, ClosesAPortUntilItsOwnerRemovesIt) {
  uint32_t id = opens({});
  kernelTexts();
  EXPECT_EQ(closes(id), "");
  EXPECT_EQ(kernelTexts().back(), "delete element ip lumen forwards { 45.45.45.1 . tcp . 8080 }");
  EXPECT_TRUE(lists()[0].get_bool(lm::nat::key::closed));

  EXPECT_EQ(closes(id), "");
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 81)), "");
  EXPECT_EQ(kernelTexts(), Texts{}) << "its owner does not open it again";
  EXPECT_TRUE(lists()[0].get_bool(lm::nat::key::closed));
  EXPECT_EQ(refusedToOpen({}), "tcp port 8080 of 45.45.45.1 is already in use");

  EXPECT_EQ(removes(id), "");
  EXPECT_EQ(kernelTexts(), Texts{});
  opens({});
}

// Promise: A request that closes a port changes nothing else: `closing a port changes nothing
// else`; a closed port is not opened again: `a closed port stays closed`.
TEST_F(NatRulesTest, ClosingChangesNothingElse) {
  uint32_t id = opens({});
  lm::message reopen = idOnly(id);
  reopen.insert_bool(lm::nat::key::closed, false);
  EXPECT_EQ(asks(admin, lm::cmd::setObject, reopen), "a closed port stays closed");
  lm::message both = closeRequest(id);
  both.insert_bool(lm::key::disabled, false);
  EXPECT_EQ(asks(admin, lm::cmd::setObject, both), "closing a port changes nothing else");
}

// Promise: A port can be closed that the policy would refuse now.
TEST_F(NatRulesTest, ClosesAPortThatThePolicyWouldRefuseNow) {
  uint32_t id = opens({});
  restrictsPortsTo("9000-9999");
  EXPECT_EQ(closes(id), "");
}

// Promise: An unknown command is answered with `unknown command`, an unknown id with `no such
// object`.
TEST_F(NatRulesTest, AnswersOnlyTheCommandsOfARuleTable) {
  for (uint32_t command : {0U, 2U, 0xfe0001U, 0xfe000bU, 0x10004U, 0xFFFFFFFFU}) {
    EXPECT_EQ(asks(admin, command, {}), "unknown command");
    EXPECT_EQ(asks(daemon, command, {}), "unknown command");
  }
  EXPECT_EQ(asks(admin, lm::cmd::readObject, idOnly(1)), "no such object");
  EXPECT_EQ(sets(setRequest(1, "192.168.88.10", 80)), "no such object");
}

// Promise [rights-rules]: A service may add, set and remove its own rules and nothing else here:
// `not permitted`.
TEST_F(NatRulesTest, LetsAServiceChangeItsOwnRulesOnly) {
  uint32_t id = opens({});
  EXPECT_EQ(asks(otherProgram, lm::cmd::setObject, setRequest(id, "192.168.88.10", 81)),
            "not permitted");
  EXPECT_EQ(asks(otherProgram, lm::cmd::removeObject, idOnly(id)), "not permitted");
  EXPECT_EQ(asks(daemon, lm::cmd::setObject, closeRequest(id)), "not permitted");
  for (uint32_t command :
       {lm::cmd::list, lm::cmd::readAll, lm::cmd::readObject, lm::cmd::get, lm::cmd::set}) {
    EXPECT_EQ(asks(daemon, command, idOnly(id)), "not permitted");
  }
  EXPECT_EQ(removes(id), "");
}

// Promise: An administrator may change and remove all rules.
TEST_F(NatRulesTest, LetsTheAdministratorChangeAllRules) {
  uint32_t id = opens({.disabled = true});
  EXPECT_EQ(asks(admin, lm::cmd::setObject, setRequest(id, "192.168.88.11", 81)), "");
  EXPECT_EQ(lists()[0].get_string(lm::nat::key::owner), "upnp");
  EXPECT_EQ(asks(admin, lm::cmd::removeObject, idOnly(id)), "");
  EXPECT_TRUE(lists().empty());
}

}  // namespace

}  // namespace lumen::test
