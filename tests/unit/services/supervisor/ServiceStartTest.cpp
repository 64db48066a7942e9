#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "services/supervisor/SupervisorFixture.h"

namespace lumen::test {
namespace {

using namespace std::chrono_literals;

class ServiceStart : public SupervisorTest {};

// Promise [service-start]: A service starts at boot if its file says so, any other with the first
// request for it.
TEST_F(ServiceStart, StartsTheServicesThatStartAtBoot) {
  supervisor.boot();
  ASSERT_EQ(starts(), 1U);
  EXPECT_EQ(processes.started[0].executable, "/usr/bin/palinode-igd");
  EXPECT_EQ(processes.started[0].user, 200U);
  EXPECT_EQ(processes.started[0].group, 300U);
  EXPECT_EQ(processes.started[0].lockFile, gatewayLock);
}

// Also proves [service-start].
TEST_F(ServiceStart, DoesNotStartAServiceAgainAtBoot) {
  EXPECT_TRUE(supervisor.need(gateway, false));
  supervisor.boot();
  EXPECT_EQ(starts(), 1U);
}

TEST_F(ServiceStart, DoesNotStartAServiceAgainThatWasNeededWhileItServed) {
  supervisor.boot();
  supervisor.registered(gateway);
  EXPECT_TRUE(supervisor.need(gateway, false));
  supervisor.unregistered(gateway);
  processes.exit(processes.last(), 0);
  EXPECT_EQ(state(gateway), lm::broker::state::stopped);
  EXPECT_EQ(starts(), 1U);
}

// Also proves [service-start].
TEST_F(ServiceStart, StartsOtherServicesAtTheFirstRequest) {
  supervisor.boot();
  EXPECT_EQ(state(resolver), lm::broker::state::stopped);
  EXPECT_TRUE(supervisor.need(resolver, false));
  ASSERT_EQ(starts(), 2U);
  EXPECT_EQ(processes.started[1].executable, "/usr/bin/lumen-resolver");
  EXPECT_EQ(state(resolver), lm::broker::state::starting);
}

// Promise [service-one]: A service has one process at a time; the next one starts when the last one
// is reaped.
TEST_F(ServiceStart, NeverRunsTwoProcessesOfAService) {
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
TEST_F(ServiceStart, DoesNotRestartAServiceThatWasNotNeeded) {
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
TEST_F(ServiceStart, StartsAgainAtOnceWhenNeededWhileLeaving) {
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
TEST_F(ServiceStart, DoesNotRestartAServiceThatRegisteredAgain) {
  supervisor.boot();
  supervisor.registered(gateway);
  supervisor.unregistered(gateway);
  EXPECT_TRUE(supervisor.need(gateway, false));
  supervisor.registered(gateway);
  supervisor.unregistered(gateway);
  processes.exit(processes.last(), 0);
  EXPECT_EQ(starts(), 1U) << "the first process served the request";
}

TEST_F(ServiceStart, IgnoresUnknownServicesAndProcesses) {
  supervisor.boot();
  EXPECT_FALSE(supervisor.need(66, true));
  supervisor.registered(66);
  supervisor.unregistered(66);
  supervisor.lost(66);
  supervisor.processEnded(4711, 0);
  EXPECT_EQ(state(gateway), lm::broker::state::starting);
  EXPECT_EQ(starts(), 1U);
}

TEST_F(ServiceStart, TellsOfRequestsToItsServices) {
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
TEST_F(ServiceStart, FindsItsServicesByNumberAndByUser) {
  EXPECT_TRUE(supervisor.isDefined(gateway));
  EXPECT_FALSE(supervisor.isDefined(66));
  EXPECT_EQ(supervisor.nameOf(gateway), "upnp");
  EXPECT_EQ(supervisor.nameOf(66), "");
  EXPECT_EQ(supervisor.servicesOf(200), std::vector<uint32_t>{gateway});
  EXPECT_TRUE(supervisor.servicesOf(0).empty());
  EXPECT_FALSE(supervisor.need(66, true));
}

}  // namespace
}  // namespace lumen::test
