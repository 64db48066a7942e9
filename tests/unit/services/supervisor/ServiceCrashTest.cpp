#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <vector>

#include "services/supervisor/SupervisorFixture.h"

namespace lumen::test {
namespace {

using namespace std::chrono_literals;

class ServiceCrash : public SupervisorTest {};

// Promise [service-crash]: Every other end of a service is a crash: never registered, still
// registered, registered again, another exit status, a signal.
TEST_F(ServiceCrash, TreatsEveryOtherEndAsACrash) {
  struct Case {
    const char* why;
    bool registers;
    bool unregisters;
    bool registersAgain;
    int status;
  };
  const Case cases[] = {
      {"never registered", false, false, false, 0},
      {"still registered", true, false, false, 0},
      {"registered again", true, true, true, 0},
      {"unregistered, but failed", true, true, false, 1 << 8},
      {"unregistered, but was killed", true, true, false, SIGKILL},
  };
  for (const Case& end : cases) {
    SCOPED_TRACE(end.why);
    FakeProcesses fresh;
    Supervisor one(twoServices(), fresh, clock, "/run");
    one.setObserver(listener);
    one.boot();
    if (end.registers) one.registered(gateway);
    if (end.unregisters) one.unregistered(gateway);
    if (end.registersAgain) one.registered(gateway);
    one.lost(gateway);
    one.processEnded(fresh.last(), end.status);
    EXPECT_EQ(one.list()[1].get_string(lm::broker::listed::state), lm::broker::state::waiting);
    EXPECT_EQ(one.list()[1].get_u64(lm::broker::listed::nextStart), 1000U);
  }
}

// Also proves [service-crash].
TEST_F(ServiceCrash, DrainsTheConnectionsBeforeItJudgesTheEnd) {
  supervisor.boot();
  supervisor.registered(gateway);
  listener.whenDrained = [&] { supervisor.unregistered(gateway); };
  processes.exit(processes.last(), 0);
  EXPECT_EQ(listener.drained, std::vector<pid_t>{1000});
  EXPECT_EQ(state(gateway), lm::broker::state::stopped);
}

// Promise [restart]: A crashed service starts again after 1 s, after 2, 4, 8, 16 and 32 s when it
// crashes again, and then after 60 s each time.
// Also proves [service-list].
TEST_F(ServiceCrash, DoublesTheBackOffUpToAMinute) {
  supervisor.boot();
  for (const auto expected : {1s, 2s, 4s, 8s, 16s, 32s, 60s, 60s}) {
    const size_t before = starts();
    crash();
    EXPECT_EQ(delay(), expected);
    pass(expected - 100ms);
    EXPECT_EQ(starts(), before);
    pass(100ms);
    EXPECT_EQ(starts(), before + 1);
  }
  EXPECT_EQ(record(gateway).get_u32(lm::broker::listed::restarts), 8U);
}

// Promise [restart-reset]: A service that crashes after it ran for 60 s, in this run or in an
// earlier one that ended well, starts again after 1 s; a shorter run that ended well does not
// count.
TEST_F(ServiceCrash, ResetsTheBackOffAfterAMinuteOfRunning) {
  supervisor.boot();
  crashUntilDelayIs(8s);
  pass(8s);
  pass(59'900ms);
  crash();
  EXPECT_EQ(delay(), 16s);
  pass(16s);
  pass(60s);
  crash();
  EXPECT_EQ(delay(), 1s);
}

// Also proves [restart-reset].
TEST_F(ServiceCrash, ResetsTheBackOffAfterAMinuteOfRunningThatEndedWell) {
  supervisor.boot();
  crashUntilDelayIs(8s);
  pass(8s);
  pass(60s);
  supervisor.registered(gateway);
  supervisor.unregistered(gateway);
  processes.exit(processes.last(), 0);
  EXPECT_TRUE(supervisor.need(gateway, false));
  pass(2s);
  crash();
  EXPECT_EQ(delay(), 1s);
}

// Also proves [restart-reset].
TEST_F(ServiceCrash, KeepsTheBackOffAfterAShortRunThatEndedWell) {
  supervisor.boot();
  crashUntilDelayIs(8s);
  pass(8s);
  supervisor.registered(gateway);
  supervisor.unregistered(gateway);
  processes.exit(processes.last(), 0);
  EXPECT_TRUE(supervisor.need(gateway, false));
  crash();
  EXPECT_EQ(delay(), 16s);
}

// Promise [restart-admin]: During back-off a request is refused, and an administrator's starts the
// service at once.
TEST_F(ServiceCrash, RefusesARequestDuringTheBackOff) {
  supervisor.boot();
  crash();
  EXPECT_FALSE(supervisor.need(gateway, false));
  EXPECT_EQ(starts(), 1U);
  EXPECT_EQ(state(gateway), lm::broker::state::waiting);
}

// Also proves [restart-admin].
TEST_F(ServiceCrash, StartsAtOnceForAnAdministratorDuringTheBackOff) {
  supervisor.boot();
  crashUntilDelayIs(4s);
  const size_t before = starts();
  EXPECT_TRUE(supervisor.need(gateway, true));
  EXPECT_EQ(starts(), before + 1);
  EXPECT_EQ(delay(), 0ms);
  pass(60s - 100ms);
  EXPECT_EQ(starts(), before + 1) << "the delayed start is cancelled";
  crash();
  EXPECT_EQ(delay(), 8s) << "the back-off continues";
}

TEST_F(ServiceCrash, RefusesWaitingRequestsWhenAServiceCrashes) {
  supervisor.boot();
  crash();
  EXPECT_EQ(listener.refused, std::vector<uint32_t>{gateway});
}

// Promise: When a service crashes while requests wait, it starts at once if an administrator sent
// one, and the other requests are answered with `service unavailable`.
TEST_F(ServiceCrash, StartsAtOnceForAnAdministratorsRequestDuringTheCrash) {
  supervisor.boot();
  supervisor.registered(gateway);
  supervisor.lost(gateway);
  EXPECT_TRUE(supervisor.need(gateway, true));
  crash();
  EXPECT_EQ(starts(), 2U);
  EXPECT_TRUE(listener.refused.empty());
}

TEST_F(ServiceCrash, BacksOffForOtherRequestsDuringTheCrash) {
  supervisor.boot();
  supervisor.registered(gateway);
  supervisor.lost(gateway);
  EXPECT_TRUE(supervisor.need(gateway, false));
  crash();
  EXPECT_EQ(starts(), 1U);
  EXPECT_EQ(listener.refused, std::vector<uint32_t>{gateway});
}

// Promise: A start that fails counts as a crash.
TEST_F(ServiceCrash, TreatsAFailedStartAsACrash) {
  processes.failToStart = true;
  EXPECT_FALSE(supervisor.need(resolver, false));
  EXPECT_EQ(state(resolver), lm::broker::state::waiting);
  processes.failToStart = false;
  pass(1s);
  EXPECT_EQ(starts(), 1U);
  EXPECT_EQ(state(resolver), lm::broker::state::starting);
}

}  // namespace
}  // namespace lumen::test
