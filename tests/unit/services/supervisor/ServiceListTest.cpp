#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

#include "services/supervisor/SupervisorFixture.h"

namespace lumen::test {
namespace {

using namespace std::chrono_literals;

class ServiceList : public SupervisorTest {};

// Promise [service-list]: The list of services has their number, name, state (`stopped`,
// `starting`, `running`, `leaving` or `waiting`), process, restarts, the milliseconds to the next
// start, program and resident memory.
TEST_F(ServiceList, ListsItsServices) {
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
TEST_F(ServiceList, ListsTheStateOfAServiceInOneWord) {
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
TEST_F(ServiceList, LogsTheLifeOfAService) {
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
TEST_F(ServiceList, SaysThatASystemCallWasForbidden) {
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
TEST_F(ServiceList, LogsTheProcessesItWaitsForAndKills) {
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

}  // namespace
}  // namespace lumen::test
