#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/supervisor/Supervisor.h"
#include "platform/wire/Broker.h"
#include "services/supervisor/FakeProcesses.h"
#include "support/ManualClock.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t gateway = 40;
constexpr uint32_t resolver = 14;
constexpr const char* gatewayLock = "/run/upnp.lock";

/// The broker's part: what it is notified of, and what a process that has ended had sent.
class Listener : public Services::Observer {
 public:
  void drainConnections(pid_t pid) override {
    drained.push_back(pid);
    if (whenDrained) whenDrained();
  }
  void unavailable(uint32_t number) override { refused.push_back(number); }

  std::vector<pid_t> drained;
  std::vector<uint32_t> refused;
  std::function<void()> whenDrained;
};

std::vector<ServiceDefinition> twoServices() {
  ServiceDefinition names;
  names.name = "resolver";
  names.number = resolver;
  names.executable = "/usr/bin/lumen-resolver";
  names.user = 201;
  names.group = 201;
  ServiceDefinition upnp;
  upnp.name = "upnp";
  upnp.number = gateway;
  upnp.executable = "/usr/bin/palinode-igd";
  upnp.user = 200;
  upnp.group = 300;
  upnp.boot = true;
  return {names, upnp};
}

class SupervisorTest : public testing::Test {
 protected:
  SupervisorTest() { supervisor.setObserver(listener); }

  void pass(std::chrono::milliseconds time) {
    clock.advanceInSteps(time, [this] { loop.turn(0ms); });
  }

  [[nodiscard]] size_t starts() const { return processes.started.size(); }

  void crash() { processes.dieBySignal(processes.last(), SIGSEGV); }

  /// Crashes until the back-off before the next start is this long.
  void crashUntilDelayIs(std::chrono::milliseconds wanted) {
    crash();
    while (delay() < wanted) {
      pass(delay());
      crash();
    }
  }

  lm::message record(uint32_t number) {
    for (const lm::message& record : supervisor.list()) {
      if (record.get_u32(lm::broker::listed::number) == number) return record;
    }
    return {};
  }
  std::string state(uint32_t number) {
    return record(number).get_string(lm::broker::listed::state);
  }
  std::chrono::milliseconds delay() {
    return std::chrono::milliseconds(record(gateway).get_u64(lm::broker::listed::nextStart));
  }

  lm::test::ManualClock clock;
  lm::EventLoop loop{clock};
  test::FakeProcesses processes;
  Listener listener;
  Supervisor supervisor{twoServices(), processes, clock, "/run"};
};

// Promise [service-start]: A service starts at boot if its file says so, any other with the first
// request for it.
TEST_F(SupervisorTest, StartsTheServicesThatStartAtBoot) {
  supervisor.boot();
  ASSERT_EQ(starts(), 1U);
  EXPECT_EQ(processes.started[0].executable, "/usr/bin/palinode-igd");
  EXPECT_EQ(processes.started[0].user, 200U);
  EXPECT_EQ(processes.started[0].group, 300U);
  EXPECT_EQ(processes.started[0].lockFile, gatewayLock);
}

// Also proves [service-start].
TEST_F(SupervisorTest, DoesNotStartAServiceAgainAtBoot) {
  EXPECT_TRUE(supervisor.need(gateway, false));
  supervisor.boot();
  EXPECT_EQ(starts(), 1U);
}

TEST_F(SupervisorTest, DoesNotStartAServiceAgainThatWasNeededWhileItServed) {
  supervisor.boot();
  supervisor.registered(gateway);
  EXPECT_TRUE(supervisor.need(gateway, false));
  supervisor.unregistered(gateway);
  processes.exit(processes.last(), 0);
  EXPECT_EQ(state(gateway), lm::broker::state::stopped);
  EXPECT_EQ(starts(), 1U);
}

// Also proves [service-start].
TEST_F(SupervisorTest, StartsOtherServicesAtTheFirstRequest) {
  supervisor.boot();
  EXPECT_EQ(state(resolver), lm::broker::state::stopped);
  EXPECT_TRUE(supervisor.need(resolver, false));
  ASSERT_EQ(starts(), 2U);
  EXPECT_EQ(processes.started[1].executable, "/usr/bin/lumen-resolver");
  EXPECT_EQ(state(resolver), lm::broker::state::starting);
}

// Promise [service-one]: A service has one process at a time; the next one starts when the last one
// is reaped.
TEST_F(SupervisorTest, NeverRunsTwoProcessesOfAService) {
  supervisor.boot();
  EXPECT_TRUE(supervisor.need(gateway, false));
  EXPECT_TRUE(supervisor.need(gateway, true));
  supervisor.registered(gateway);
  EXPECT_EQ(state(gateway), lm::broker::state::running);
  supervisor.unregistered(gateway);
  EXPECT_TRUE(supervisor.need(gateway, true));
  EXPECT_EQ(starts(), 1U);
}

// Promise [service-leave]: A service that had unregistered and exits with 0 was not needed, and is
// not started again until it is needed.
TEST_F(SupervisorTest, DoesNotRestartAServiceThatWasNotNeeded) {
  supervisor.boot();
  supervisor.registered(gateway);
  supervisor.unregistered(gateway);
  EXPECT_EQ(state(gateway), lm::broker::state::leaving);
  processes.exit(processes.last(), 0);
  EXPECT_EQ(state(gateway), lm::broker::state::stopped);
  pass(120s);
  EXPECT_EQ(starts(), 1U);
}

// Promise: A request that arrives while a service leaves starts it again at once.
// Also proves [service-one].
TEST_F(SupervisorTest, StartsAgainAtOnceWhenNeededWhileLeaving) {
  supervisor.boot();
  supervisor.registered(gateway);
  supervisor.unregistered(gateway);
  EXPECT_TRUE(supervisor.need(gateway, false));
  EXPECT_EQ(starts(), 1U) << "the next process waits until the last one is reaped";
  processes.exit(processes.last(), 0);
  EXPECT_EQ(starts(), 2U);
  EXPECT_TRUE(listener.refused.empty());
  EXPECT_EQ(record(gateway).get_u32(lm::broker::listed::restarts), 0U) << "it had not crashed";
}

// Also proves [service-leave].
TEST_F(SupervisorTest, DoesNotRestartAServiceThatRegisteredAgain) {
  supervisor.boot();
  supervisor.registered(gateway);
  supervisor.unregistered(gateway);
  EXPECT_TRUE(supervisor.need(gateway, false));
  supervisor.registered(gateway);
  supervisor.unregistered(gateway);
  processes.exit(processes.last(), 0);
  EXPECT_EQ(starts(), 1U) << "the first process served the request";
}

// Promise [service-crash]: Every other end of a service is a crash: never registered, still
// registered, registered again, another exit status, a signal.
TEST_F(SupervisorTest, TreatsEveryOtherEndAsACrash) {
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
    test::FakeProcesses fresh;
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
TEST_F(SupervisorTest, DrainsTheConnectionsBeforeItJudgesTheEnd) {
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
TEST_F(SupervisorTest, DoublesTheBackOffUpToAMinute) {
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
TEST_F(SupervisorTest, ResetsTheBackOffAfterAMinuteOfRunning) {
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
TEST_F(SupervisorTest, ResetsTheBackOffAfterAMinuteOfRunningThatEndedWell) {
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
TEST_F(SupervisorTest, KeepsTheBackOffAfterAShortRunThatEndedWell) {
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
TEST_F(SupervisorTest, RefusesARequestDuringTheBackOff) {
  supervisor.boot();
  crash();
  EXPECT_FALSE(supervisor.need(gateway, false));
  EXPECT_EQ(starts(), 1U);
  EXPECT_EQ(state(gateway), lm::broker::state::waiting);
}

// Also proves [restart-admin].
TEST_F(SupervisorTest, StartsAtOnceForAnAdministratorDuringTheBackOff) {
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

TEST_F(SupervisorTest, RefusesWaitingRequestsWhenAServiceCrashes) {
  supervisor.boot();
  crash();
  EXPECT_EQ(listener.refused, std::vector<uint32_t>{gateway});
}

// Promise: When a service crashes while requests wait, it starts at once if an administrator sent
// one, and the other requests are answered with `service unavailable`.
TEST_F(SupervisorTest, StartsAtOnceForAnAdministratorsRequestDuringTheCrash) {
  supervisor.boot();
  supervisor.registered(gateway);
  supervisor.lost(gateway);
  EXPECT_TRUE(supervisor.need(gateway, true));
  crash();
  EXPECT_EQ(starts(), 2U);
  EXPECT_TRUE(listener.refused.empty());
}

TEST_F(SupervisorTest, BacksOffForOtherRequestsDuringTheCrash) {
  supervisor.boot();
  supervisor.registered(gateway);
  supervisor.lost(gateway);
  EXPECT_TRUE(supervisor.need(gateway, false));
  crash();
  EXPECT_EQ(starts(), 1U);
  EXPECT_EQ(listener.refused, std::vector<uint32_t>{gateway});
}

// Promise: A start that fails counts as a crash.
TEST_F(SupervisorTest, TreatsAFailedStartAsACrash) {
  processes.failToStart = true;
  EXPECT_FALSE(supervisor.need(resolver, false));
  EXPECT_EQ(state(resolver), lm::broker::state::waiting);
  processes.failToStart = false;
  pass(1s);
  EXPECT_EQ(starts(), 1U);
  EXPECT_EQ(state(resolver), lm::broker::state::starting);
}

// Also proves [leftover].
TEST_F(SupervisorTest, WaitsForTheProcessThatAnEarlierLumendHasLeft) {
  processes.holders[gatewayLock] = 77;
  supervisor.boot();
  EXPECT_TRUE(supervisor.need(gateway, false)) << "it is starting";
  EXPECT_EQ(state(gateway), lm::broker::state::starting);
  pass(9s);
  EXPECT_EQ(starts(), 0U);
  processes.holders.clear();
  pass(100ms);
  EXPECT_EQ(starts(), 1U);
  EXPECT_TRUE(processes.killed.empty());
}

// Promise [leftover]: A process that an earlier lumend has left is waited for up to 10 s, then
// killed, and the service starts when it is gone.
TEST_F(SupervisorTest, KillsTheProcessThatAnEarlierLumendHasLeftAfterTenSeconds) {
  processes.holders[gatewayLock] = 77;
  supervisor.boot();
  pass(9900ms);
  EXPECT_TRUE(processes.killed.empty());
  pass(5s);
  EXPECT_EQ(processes.killed, std::vector<std::string>{gatewayLock});
  EXPECT_EQ(starts(), 0U) << "it is not gone yet";
  processes.holders.clear();
  pass(100ms);
  EXPECT_EQ(starts(), 1U);
}

// Promise [lock-holders]: A service's lock that has further holders is freed of one every 10 s.
TEST_F(SupervisorTest, KillsOneHolderOfALockAfterTheOther) {
  processes.holders[gatewayLock] = 77;
  supervisor.boot();
  pass(10s);
  processes.holders[gatewayLock] = 78;
  pass(9900ms);
  EXPECT_EQ(processes.killed.size(), 1U);
  pass(100ms);
  EXPECT_EQ(processes.killed.size(), 2U);
  EXPECT_EQ(starts(), 0U);
  processes.holders.clear();
  pass(100ms);
  EXPECT_EQ(starts(), 1U);
}

// Promise: At its end lumend asks every service with SIGTERM to end and waits until all are reaped.
TEST_F(SupervisorTest, AsksEveryServiceToEndAndWaitsForIt) {
  supervisor.boot();
  EXPECT_TRUE(supervisor.need(resolver, false));
  supervisor.shutDown();
  const std::vector<std::pair<pid_t, int>> asked = {{1001, SIGTERM}, {1000, SIGTERM}};
  EXPECT_EQ(processes.signals, asked);
  processes.exit(1000, 0);
  EXPECT_FALSE(supervisor.isShutDown());
  processes.dieBySignal(1001, SIGTERM);
  EXPECT_TRUE(supervisor.isShutDown());
  EXPECT_EQ(starts(), 2U);
}

TEST_F(SupervisorTest, ShutsDownOnceHoweverOftenItIsCalled) {
  supervisor.boot();
  supervisor.shutDown();
  supervisor.shutDown();
  EXPECT_EQ(processes.signals.size(), 1U);
}

TEST_F(SupervisorTest, IgnoresUnknownServicesAndProcesses) {
  supervisor.boot();
  EXPECT_FALSE(supervisor.need(66, true));
  supervisor.registered(66);
  supervisor.unregistered(66);
  supervisor.lost(66);
  supervisor.processEnded(4711, 0);
  EXPECT_EQ(state(gateway), lm::broker::state::starting);
  EXPECT_EQ(starts(), 1U);
}

TEST_F(SupervisorTest, EndsAtOnceWhenNothingRuns) {
  EXPECT_FALSE(supervisor.isShutDown());
  supervisor.shutDown();
  EXPECT_TRUE(supervisor.isShutDown());
}

// Promise: Nothing is started while lumend ends.
TEST_F(SupervisorTest, StartsNothingWhileItShutsDown) {
  supervisor.boot();
  crash();
  supervisor.shutDown();
  EXPECT_FALSE(supervisor.need(gateway, true));
  EXPECT_FALSE(supervisor.need(resolver, true));
  pass(10s);
  EXPECT_EQ(starts(), 1U);
}

// Promise [end-kill]: A service that does not end within 5 s of lumend's SIGTERM is killed, and
// lumend ends a second later in any case.
TEST_F(SupervisorTest, KillsAfterFiveSecondsAServiceThatDoesNotEnd) {
  supervisor.boot();
  supervisor.shutDown();
  pass(4900ms);
  ASSERT_EQ(processes.signals.size(), 1U);
  pass(100ms);
  ASSERT_EQ(processes.signals.size(), 2U);
  EXPECT_EQ(processes.signals[1], std::pair(1000, SIGKILL));
  EXPECT_FALSE(supervisor.isShutDown());
  processes.dieBySignal(1000, SIGKILL);
  EXPECT_TRUE(supervisor.isShutDown());
}

// Also proves [end-kill].
TEST_F(SupervisorTest, EndsEvenIfAKilledServiceIsNotReaped) {
  supervisor.boot();
  supervisor.shutDown();
  pass(6s);
  EXPECT_TRUE(supervisor.isShutDown());
}

// Also proves [store-limit].
TEST_F(SupervisorTest, KillsEachProcessOnceWhenItIsToldTo) {
  supervisor.boot();
  supervisor.end(gateway, "its store is full");
  supervisor.end(gateway, "its store is full");
  EXPECT_EQ(processes.signals, (std::vector<std::pair<pid_t, int>>{{1000, SIGKILL}}));
  processes.dieBySignal(1000, SIGKILL);
  supervisor.end(gateway, "its store is full");  // none runs
  EXPECT_EQ(processes.signals.size(), 1U);
  pass(1s);
  ASSERT_EQ(starts(), 2U);
  supervisor.end(gateway, "its store is full");
  EXPECT_EQ(processes.signals.size(), 2U);
}

// Promise [service-list]: The list of services has their number, name, state (`stopped`,
// `starting`, `running`, `leaving` or `waiting`), process, restarts, the milliseconds to the next
// start, program and resident memory.
TEST_F(SupervisorTest, ListsItsServices) {
  supervisor.boot();
  supervisor.registered(gateway);
  processes.memory = {{0, 99}, {1000, 3'145'728}, {getpid(), 4'194'304}};
  ASSERT_EQ(supervisor.list().size(), 2U);
  const lm::message idle = supervisor.list()[0];
  EXPECT_EQ(idle.get_u32(lm::broker::listed::number), resolver);
  EXPECT_EQ(idle.get_string(lm::broker::listed::name), "resolver");
  EXPECT_EQ(idle.get_string(lm::broker::listed::state), "stopped");
  EXPECT_EQ(idle.get_u32(lm::broker::listed::pid), 0U);
  EXPECT_EQ(idle.get_string(lm::broker::listed::program), "lumen-resolver");
  EXPECT_EQ(idle.get_u64(lm::broker::listed::residentMemory), 0U);
  const lm::message busy = supervisor.list()[1];
  EXPECT_EQ(busy.get_u32(lm::broker::listed::number), gateway);
  EXPECT_EQ(busy.get_string(lm::broker::listed::state), "running");
  EXPECT_EQ(busy.get_u32(lm::broker::listed::pid), 1000U);
  EXPECT_EQ(busy.get_u64(lm::broker::listed::nextStart), 0U);
  EXPECT_EQ(busy.get_string(lm::broker::listed::program), "palinode-igd");
  EXPECT_EQ(busy.get_u64(lm::broker::listed::residentMemory), 3'145'728U);
  EXPECT_EQ(supervisor.residentMemory(), 4'194'304U) << "lumend's own";
}

// Also proves [service-list].
TEST_F(SupervisorTest, ListsTheStateOfAServiceInOneWord) {
  EXPECT_EQ(state(gateway), "stopped");
  supervisor.boot();
  EXPECT_EQ(state(gateway), "starting");
  supervisor.registered(gateway);
  EXPECT_EQ(state(gateway), "running");
  supervisor.unregistered(gateway);
  EXPECT_EQ(state(gateway), "leaving");
  crash();
  EXPECT_EQ(state(gateway), "waiting");
  processes.holders[gatewayLock] = 77;
  pass(1s);
  EXPECT_EQ(state(gateway), "starting") << "once the earlier process has gone";
}

// Promise: Each event in the life of a service is one line of the log: `upnp: started, process
// 1000`, `upnp: ended by signal 11, starts again in 1 s`, `upnp: ended with exit status 3, starts
// again in 2 s`, `upnp: ended by signal 11, starts again at once`, `upnp: ended, not needed now`,
// `upnp: cannot be started (fork: Out of memory), starts again in 8 s`.
TEST_F(SupervisorTest, LogsTheLifeOfAService) {
  testing::internal::CaptureStdout();
  supervisor.boot();
  crash();
  pass(1s);
  processes.exit(processes.last(), 3);
  EXPECT_TRUE(supervisor.need(gateway, true));
  supervisor.registered(gateway);
  supervisor.lost(gateway);
  EXPECT_TRUE(supervisor.need(gateway, true));
  crash();
  supervisor.registered(gateway);
  supervisor.unregistered(gateway);
  processes.exit(processes.last(), 0);
  processes.failToStart = true;
  EXPECT_FALSE(supervisor.need(gateway, false));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "upnp: started, process 1000\n"
            "upnp: ended by signal 11, starts again in 1 s\n"
            "upnp: started, process 1001\n"
            "upnp: ended with exit status 3, starts again in 2 s\n"
            "upnp: started, process 1002\n"
            "upnp: ended by signal 11, starts again at once\n"
            "upnp: started, process 1003\n"
            "upnp: ended, not needed now\n"
            "upnp: cannot be started (fork: Out of memory), starts again in 8 s\n");
}

// Promise: The log says when a service ended since it made a system call that it may not make.
TEST_F(SupervisorTest, SaysThatASystemCallWasForbidden) {
  supervisor.boot();
  testing::internal::CaptureStdout();
  processes.dieBySignal(processes.last(), SIGSYS);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "upnp: ended by signal " + std::to_string(SIGSYS) +
                ", for a forbidden system call, starts again in 1 s\n");
}

// Promise: The log says which process lumend waits for and which it kills: `upnp: waits for the
// process that an earlier lumend has left`, `upnp: kills the process that an earlier lumend has
// left`, `upnp: is killed, since it does not end`.
TEST_F(SupervisorTest, LogsTheProcessesItWaitsForAndKills) {
  testing::internal::CaptureStdout();
  processes.holders[gatewayLock] = 77;
  supervisor.boot();
  pass(10s);
  processes.holders.clear();
  pass(100ms);
  supervisor.shutDown();
  pass(5s);
  processes.dieBySignal(processes.last(), SIGKILL);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "upnp: waits for the process that an earlier lumend has left\n"
            "upnp: kills the process that an earlier lumend has left\n"
            "upnp: started, process 1000\n"
            "upnp: is killed, since it does not end\n"
            "upnp: ended by signal 9\n");
}

TEST_F(SupervisorTest, TellsOfRequestsToItsServices) {
  struct Requests : Supervisor::RequestListener {
    void asked(const ServiceDefinition& service) override { names.push_back(service.name); }
    std::vector<std::string> names;
  };
  Requests requests;
  supervisor.asked(resolver);
  supervisor.listenToRequests(requests);
  for (const uint32_t number : {resolver, gateway, 99U}) supervisor.asked(number);
  EXPECT_EQ(requests.names, (std::vector<std::string>{"resolver", "upnp"}));
}

// Promise: A service is found by its number and by its user.
TEST_F(SupervisorTest, FindsItsServicesByNumberAndByUser) {
  EXPECT_TRUE(supervisor.isDefined(gateway));
  EXPECT_FALSE(supervisor.isDefined(66));
  EXPECT_EQ(supervisor.nameOf(gateway), "upnp");
  EXPECT_EQ(supervisor.nameOf(66), "");
  EXPECT_EQ(supervisor.servicesOf(200), std::vector<uint32_t>{gateway});
  EXPECT_TRUE(supervisor.servicesOf(0).empty());
  EXPECT_FALSE(supervisor.need(66, true));
}

}  // namespace
}  // namespace lumen
