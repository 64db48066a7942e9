#include "igd/PortMappingFixture.h"

namespace {

using lm::test::removeRuleRequest;

// Promise [mapping-delete]: DeletePortMapping logs `del map <external port>` and sends command
// 0xfe0006 with the rule's id, and nothing else.
// Also proves [mapping-protocol].
TEST_F(PortMapping, ClosesAPort) {
  open({});
  open({.protocol = "UDP"});
  platform.forgetSent();
  EXPECT_EQ(close("8080", "TCP"), closed());
  EXPECT_EQ(ownLog(), "del map 8080\n");
  EXPECT_EQ(requests(lm::cmd::removeObject), std::vector<lm::message>{removeRuleRequest(501)});
  EXPECT_EQ(platform.sent().size(), 1U);
  EXPECT_EQ(entries(), "2");
  EXPECT_EQ(entryOf("8080", "TCP"), noSuchEntry);
  EXPECT_EQ(entryOf("8080", "UDP"), found({.protocol = "UDP"}));
}

// Promise [mapping-delete-remote]: DeletePortMapping does not look at the remote host.
TEST_F(PortMapping, ClosesAPortWhateverTheRemoteHost) {
  open({});
  EXPECT_EQ(close("8080", "TCP", "45.45.45.77"), closed());
}

// Promise [fault-714-delete]: DeletePortMapping of an unknown mapping is a fault 714 and logs
// `deletePortMapping: NO_SUCH_ENTRY`; the platform is not asked.
TEST_F(PortMapping, DoesNotCloseWhatIsNotOpen) {
  open({});
  platform.forgetSent();
  EXPECT_EQ(close("8081", "TCP"), noSuchEntry);
  EXPECT_EQ(ownLog(), "deletePortMapping: NO_SUCH_ENTRY\n");
  EXPECT_EQ(close("8080", "UDP"), noSuchEntry);
  EXPECT_TRUE(platform.sent().empty());
  EXPECT_EQ(close("8080", "TCP"), closed());
  EXPECT_EQ(close("8080", "TCP"), noSuchEntry) << "a second time";
}

// Promise [fault-501-close]: A rule that the platform does not remove logs `remove nat failed: `
// with its text and is a fault 501; the mapping stays listed.
TEST_F(PortMapping, KeepsAMappingWhoseRuleIsNotRemoved) {
  open({});
  platform.refuse(natTable, lm::cmd::removeObject, "not permitted");
  EXPECT_EQ(close("8080", "TCP"), failed);
  EXPECT_EQ(ownLog(), "del map 8080\nremove nat failed: not permitted\n");
  EXPECT_EQ(entryAt("1"), listed({}));
  EXPECT_EQ(entries(), "2");
}

// Promise [mapping-interface]: When the interface stops, the rules of all its mappings are removed,
// by port and TCP before UDP.
TEST_F(PortMapping, RemovesEveryRuleWhenItGoes) {
  open({.port = "9000"});
  open({.port = "80", .protocol = "UDP"});
  open({.port = "80"});
  platform.forgetSent();
  EXPECT_EQ(logged([this] { connection.reset(); }), "");
  EXPECT_EQ(requests(lm::cmd::removeObject),
            (std::vector<lm::message>{removeRuleRequest(503), removeRuleRequest(502),
                                      removeRuleRequest(501)}));
  EXPECT_EQ(platform.sent().size(), 3U);
}

// Promise: A rule that is not removed then logs `on cleanup remove nat failed: ` with the
// platform's text, and the next one follows.
TEST_F(PortMapping, GoesOnWhenARuleIsNotRemoved) {
  open({.port = "80"});
  open({.port = "81"});
  open({.port = "82"});
  platform.forgetSent();
  platform.onRequest(natTable, lm::cmd::removeObject, [](const lm::message& request) {
    return request.get_u32(0xfe0001) == 502 ? lm::errorMsg(0xfe0009, "not permitted")
                                            : lm::message();
  });
  EXPECT_EQ(logged([this] { connection.reset(); }),
            "on cleanup remove nat failed: not permitted\n");
  EXPECT_EQ(requests(lm::cmd::removeObject).size(), 3U);
}

// Promise [mapping-given-up]: A rule that was not added, changed or removed within six seconds is
// given up, and the platform undoes what it does later; only the removals of an interface that
// stops are carried out however late.
TEST_F(PortMapping, GivesUpARuleThatIsNotRemovedInTime) {
  open({});
  platform.forgetSent();
  platform.ignore(natTable, lm::cmd::removeObject);
  (void)close("8080", "TCP");
  const auto removals = requests(lm::cmd::removeObject);
  ASSERT_EQ(removals.size(), 1U);
  const std::vector<lm::message> cancelled = platform.notified(cancel);
  ASSERT_EQ(cancelled.size(), 1U);
  EXPECT_EQ(cancelled[0].get_u32(lm::key::serial),
            platform.sentTo(natTable, lm::cmd::removeObject)[0].get_u32(lm::key::serial));
}

// Its mapping is forgotten: a rule that came back would be in no list.
TEST_F(PortMapping, LetsALateRemovalStandWhenItGoes) {
  open({});
  platform.forgetSent();
  platform.ignore(natTable, lm::cmd::removeObject);
  EXPECT_EQ(logged([this] { connection.reset(); }),
            "on cleanup remove nat failed: no answer in time\n");
  EXPECT_EQ(requests(lm::cmd::removeObject).size(), 1U);
  EXPECT_TRUE(platform.notified(cancel).empty());
}

// Promise: A reply without a rule id means rule 0.
TEST_F(PortMapping, RemembersRuleZeroWhenTheNatTableNamesNone) {
  platform.answer(natTable, lm::cmd::addObject, {});
  open({});
  platform.forgetSent();
  EXPECT_EQ(close("8080", "TCP"), closed());
  EXPECT_EQ(requests(lm::cmd::removeObject), std::vector<lm::message>{removeRuleRequest(0)});
}

}  // namespace
