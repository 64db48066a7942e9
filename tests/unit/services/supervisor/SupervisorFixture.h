#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/supervisor/Supervisor.h"
#include "platform/wire/Broker.h"
#include "services/supervisor/FakeProcesses.h"
#include "support/ManualClock.h"

namespace lumen::test {

inline constexpr uint32_t gateway = 40;
inline constexpr uint32_t resolver = 14;
inline constexpr const char* gatewayLock = "/run/upnp.lock";

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

inline std::vector<ServiceDefinition> twoServices() {
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

/// The supervisor of a gateway and a resolver, with processes and a clock that the test moves.
class SupervisorTest : public testing::Test {
 protected:
  SupervisorTest() { supervisor.setObserver(listener); }

  void pass(std::chrono::milliseconds time) {
    clock.advanceInSteps(time, [this] { loop.turn(std::chrono::milliseconds(0)); });
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
  FakeProcesses processes;
  Listener listener;
  Supervisor supervisor{twoServices(), processes, clock, "/run"};
};

}  // namespace lumen::test
