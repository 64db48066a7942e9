#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "services/supervisor/SupervisorFixture.h"

namespace lumen::test {
namespace {

using namespace std::chrono_literals;

class ServiceEnd : public SupervisorTest {};

// Also proves [leftover].
TEST_F(ServiceEnd, WaitsForTheProcessThatAnEarlierLumendHasLeft) {
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
TEST_F(ServiceEnd, KillsTheProcessThatAnEarlierLumendHasLeftAfterTenSeconds) {
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
TEST_F(ServiceEnd, KillsOneHolderOfALockAfterTheOther) {
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
TEST_F(ServiceEnd, AsksEveryServiceToEndAndWaitsForIt) {
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

TEST_F(ServiceEnd, ShutsDownOnceHoweverOftenItIsCalled) {
  supervisor.boot();
  supervisor.shutDown();
  supervisor.shutDown();
  EXPECT_EQ(processes.signals.size(), 1U);
}

TEST_F(ServiceEnd, EndsAtOnceWhenNothingRuns) {
  EXPECT_FALSE(supervisor.isShutDown());
  supervisor.shutDown();
  EXPECT_TRUE(supervisor.isShutDown());
}

// Promise: Nothing is started while lumend ends.
TEST_F(ServiceEnd, StartsNothingWhileItShutsDown) {
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
TEST_F(ServiceEnd, KillsAfterFiveSecondsAServiceThatDoesNotEnd) {
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
TEST_F(ServiceEnd, EndsEvenIfAKilledServiceIsNotReaped) {
  supervisor.boot();
  supervisor.shutDown();
  pass(6s);
  EXPECT_TRUE(supervisor.isShutDown());
}

// Also proves [store-limit].
TEST_F(ServiceEnd, KillsEachProcessOnceWhenItIsToldTo) {
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

}  // namespace
}  // namespace lumen::test
