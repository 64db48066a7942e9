#include <chrono>

#include "lumen/services/nat/FlowCleaner.h"
#include "services/nat/NatFixture.h"

namespace lumen::test {

namespace {

using namespace std::chrono_literals;

Endpoint at(const char* address, uint16_t port) { return {ip(address), port}; }

class FlowCleanerTest : public NatFixture {
 protected:
  static Flow udp(uint16_t port, const char* responder, uint16_t responderPort) {
    return {.protocol = 17,
            .destination = at("45.45.45.1", port),
            .responder = at(responder, responderPort)};
  }

  /// Lets the sweep that is due run, the kernel taking this long for it.
  void sweepRuns(std::chrono::milliseconds time = 0ms) {
    passes(0ms);
    ASSERT_TRUE(flows.sweeping());
    clock.advance(time);
    flows.finishSweep();
  }
};

// Promise [flows-end]: Closing a UDP port ends its flows after the reply, also when it is disabled,
// changed, closed by the administrator or its owner ends.
TEST_F(FlowCleanerTest, EndsTheFlowsOfAClosedUdpPortOffTheReplyPath) {
  uint32_t id = opens({.protocol = "udp"});
  sweepRuns();
  flows.flows = {udp(8080, "192.168.88.10", 80), udp(9000, "192.168.88.10", 90)};
  EXPECT_EQ(removes(id), "");
  EXPECT_EQ(flows.sweeps.size(), 1U) << "not before the reply";
  passes(100ms);
  flows.finishSweep();
  EXPECT_EQ(flows.sweeps.back(), std::set<Endpoint>{at("45.45.45.1", 8080)});
  ASSERT_EQ(flows.flows.size(), 1U);
  EXPECT_EQ(flows.flows[0].destination.port, 9000);
}

// Promise: Opening a UDP port frees flows that began before it was open.
TEST_F(FlowCleanerTest, FreesAUdpFlowThatWasStuckBeforeItsPortWasOpened) {
  flows.flows = {udp(8080, "45.45.45.1", 8080)};
  opens({.protocol = "udp"});
  EXPECT_FALSE(flows.sweeping());
  sweepRuns();
  EXPECT_TRUE(flows.flows.empty());
}

// Promise: Flows that go where they should, and those of other ports, are left alone.
TEST_F(FlowCleanerTest, KeepsAFlowThatGoesWhereItShould) {
  opens({.protocol = "udp"});
  flows.flows = {udp(8080, "192.168.88.10", 80)};
  sweepRuns();
  EXPECT_EQ(flows.flows.size(), 1U);
}

// Also proves [flows-end].
TEST_F(FlowCleanerTest, EndsTheFlowsToTheOldClientPortOfAChangedRule) {
  uint32_t id = opens({.protocol = "udp"});
  sweepRuns();
  flows.flows = {udp(8080, "192.168.88.10", 80), udp(8080, "192.168.88.10", 81)};
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 81)), "");
  passes(100ms);
  flows.finishSweep();
  ASSERT_EQ(flows.flows.size(), 1U);
  EXPECT_EQ(flows.flows[0].responder.port, 81);
}

// Also proves [flows-end].
TEST_F(FlowCleanerTest, EndsFlowsWhenAPortIsDisabledOrClosedOrItsOwnerEnds) {
  uint32_t disabled = opens({.protocol = "udp", .port = 5000});
  uint32_t closed = opens({.protocol = "udp", .port = 5001});
  opens({.protocol = "udp", .port = 5002});
  sweepRuns();
  flows.flows = {udp(5000, "192.168.88.10", 80), udp(5001, "192.168.88.10", 80),
                 udp(5002, "192.168.88.10", 80)};
  EXPECT_EQ(sets(setRequest(disabled, "192.168.88.10", 80, true)), "");
  EXPECT_EQ(closes(closed), "");
  passes(100ms);
  flows.finishSweep();
  EXPECT_EQ(flows.flows.size(), 1U);
  rules.connectionEnded(daemon.connection);
  passes(100ms);
  flows.finishSweep();
  EXPECT_TRUE(flows.flows.empty());
}

// Promise [flows-tcp]: TCP connections outlive the port through which they came.
TEST_F(FlowCleanerTest, LeavesTcpConnectionsOpen) {
  removes(opens({}));
  passes(1s);
  EXPECT_TRUE(flows.sweeps.empty());
}

// Also proves [flows-sweep].
TEST_F(FlowCleanerTest, SweepsOnceForPortsThatOpenInQuickSuccession) {
  for (uint32_t i = 0; i < 2000; ++i) {
    const std::string client = "192.168.88." + std::to_string(10 + i / 100);
    opens({.protocol = "udp", .port = 2000 + i, .client = client.c_str()});
  }
  sweepRuns();
  ASSERT_EQ(flows.sweeps.size(), 1U);
  EXPECT_EQ(flows.sweeps[0].size(), 2000U);
}

// Promise [flows-sweep]: Flows are swept at most ten times a second and for at most a tenth of the
// time, once for ports that change in quick succession.
TEST_F(FlowCleanerTest, SweepsAtMostTenTimesASecond) {
  opens({.protocol = "udp", .port = 5000});
  sweepRuns();
  opens({.protocol = "udp", .port = 5001});
  passes(90ms);
  EXPECT_FALSE(flows.sweeping());
  passes(10ms);
  EXPECT_TRUE(flows.sweeping());
}

// Also proves [flows-sweep].
TEST_F(FlowCleanerTest, SweepsForAtMostATenthOfTheTime) {
  opens({.protocol = "udp", .port = 5000});
  sweepRuns(50ms);
  opens({.protocol = "udp", .port = 5001});
  passes(440ms);
  EXPECT_FALSE(flows.sweeping());
  passes(10ms);
  EXPECT_TRUE(flows.sweeping());
}

// Also proves [flows-sweep].
TEST_F(FlowCleanerTest, KeepsChangesDuringASweepForTheNextOne) {
  opens({.protocol = "udp", .port = 5000});
  passes(0ms);
  ASSERT_TRUE(flows.sweeping());
  opens({.protocol = "udp", .port = 5001});
  passes(1s);
  EXPECT_EQ(flows.sweeps.size(), 1U) << "one at a time";
  flows.finishSweep();
  passes(9s);
  ASSERT_EQ(flows.sweeps.size(), 2U);
  EXPECT_EQ(flows.sweeps[1], std::set<Endpoint>{at("45.45.45.1", 5001)});
}

// Promise [flows-files]: A UDP port has a file in `/lumen/run/udp`, named like `45.45.45.1:5060`,
// from before it opens until its flows have been ended after it closed.
TEST_F(FlowCleanerTest, MarksAUdpPortBeforeItOpensUntilItsFlowsHaveBeenSweptAfterItClosed) {
  const std::set<Endpoint> marked = {at("45.45.45.1", 8080)};
  uint32_t id = opens({.protocol = "udp"});
  EXPECT_EQ(marks.all(), marked);
  sweepRuns();
  EXPECT_EQ(marks.all(), marked);
  EXPECT_EQ(removes(id), "");
  passes(100ms);
  EXPECT_EQ(marks.all(), marked) << "while it is being swept";
  flows.finishSweep();
  EXPECT_EQ(marks.all(), std::set<Endpoint>());
}

// Promise: A TCP port, a disabled rule and a rule that the kernel refused leave no such file.
TEST_F(FlowCleanerTest, MarksNeitherATcpPortNorADisabledOne) {
  opens({});
  opens({.protocol = "udp", .disabled = true});
  EXPECT_EQ(marks.all(), std::set<Endpoint>());
}

// Also proves [flows-files].
TEST_F(FlowCleanerTest, MarksAPortThatIsEnabledLater) {
  uint32_t id = opens({.protocol = "udp", .disabled = true});
  EXPECT_EQ(sets(setRequest(id, "192.168.88.10", 80, false)), "");
  EXPECT_EQ(marks.all(), std::set<Endpoint>{at("45.45.45.1", 8080)});
}

// Also proves [flows-files].
TEST_F(FlowCleanerTest, KeepsTheMarkOfAPortThatWasOpenAgainDuringASweep) {
  uint32_t id = opens({.protocol = "udp"});
  passes(0ms);
  ASSERT_TRUE(flows.sweeping());
  EXPECT_EQ(removes(id), "");
  EXPECT_EQ(removes(opens({.protocol = "udp"})), "");
  flows.finishSweep();
  EXPECT_EQ(marks.all().size(), 1U) << "flows that began meanwhile have not been swept";
  passes(100ms);
  flows.finishSweep();
  EXPECT_EQ(marks.all(), std::set<Endpoint>());
}

TEST_F(FlowCleanerTest, KeepsNoMarkOfAPortThatTheKernelRefused) {
  nftables.refuses("add element ip lumen forwards { 45.45.45.1 . udp . 8080 : 192.168.88.10 . 80 }",
                   "no");
  refusedToOpen({.protocol = "udp"});
  sweepRuns();
  EXPECT_EQ(marks.all(), std::set<Endpoint>());
}

// Promise [flows-killed]: The UDP flows of a lumend that was killed are ended by the next one, but
// those of ports that are open again.
TEST_F(FlowCleanerTest, EndsTheFlowsThatAKilledLumendHasLeft) {
  flows.flows = {udp(8080, "192.168.88.10", 80), udp(8081, "192.168.88.10", 81),
                 udp(9000, "192.168.88.10", 90)};
  marks.set(at("45.45.45.1", 8080));
  marks.set(at("45.45.45.1", 8081));
  rules.endOldFlows();
  EXPECT_FALSE(rules.flowsEnded());
  opens({.protocol = "udp", .port = 8081, .clientPort = 81});
  sweepRuns();
  EXPECT_TRUE(rules.flowsEnded());
  ASSERT_EQ(flows.flows.size(), 2U);
  EXPECT_EQ(flows.flows[0].destination.port, 8081) << "its port is open again";
  EXPECT_EQ(flows.flows[1].destination.port, 9000) << "was not our port";
  EXPECT_EQ(marks.all(), std::set<Endpoint>{at("45.45.45.1", 8081)});
}

// Promise: The ports of a sweep that failed keep their files and are swept again with the next
// ports that change, or by the next lumend.
TEST_F(FlowCleanerTest, SweepsThePortsOfAFailedSweepAgainWithTheNext) {
  const std::set<Endpoint> both = {at("45.45.45.1", 5000), at("45.45.45.1", 5001)};
  uint32_t id = opens({.protocol = "udp", .port = 5000});
  sweepRuns();
  flows.flows = {udp(5000, "192.168.88.10", 80)};
  EXPECT_EQ(removes(id), "");
  passes(100ms);
  flows.failSweep();
  EXPECT_TRUE(rules.flowsEnded()) << "nothing waits for what fails";
  passes(10s);
  EXPECT_FALSE(flows.sweeping()) << "until a port changes";
  opens({.protocol = "udp", .port = 5001});
  EXPECT_EQ(marks.all(), both);
  sweepRuns();
  EXPECT_EQ(flows.sweeps.back(), both);
  EXPECT_TRUE(flows.flows.empty());
  EXPECT_EQ(marks.all(), std::set<Endpoint>{at("45.45.45.1", 5001)});
  opens({.protocol = "udp", .port = 5002});
  passes(100ms);
  EXPECT_EQ(flows.sweeps.back(), std::set<Endpoint>{at("45.45.45.1", 5002)});
}

// Promise: lumend ends when the flows of the ports that it closed have been ended.
TEST_F(FlowCleanerTest, IsIdleOnceAllFlowsHaveBeenSwept) {
  EXPECT_TRUE(rules.flowsEnded());
  opens({.protocol = "udp", .port = 5000});
  EXPECT_FALSE(rules.flowsEnded()) << "a sweep is due";
  passes(0ms);
  EXPECT_FALSE(rules.flowsEnded()) << "under way";
  flows.finishSweep();
  EXPECT_TRUE(rules.flowsEnded());
}

}  // namespace

}  // namespace lumen::test
