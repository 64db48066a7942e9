#pragma once

#include <gtest/gtest.h>
#include <netdb.h>
#include <sched.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "lumen/services/system/netfilter/LibNftables.h"
#include "services/nat/NatFixture.h"
#include "services/nat/WanHost.h"

namespace lumen::test {

/// The real kernel in a network namespace of the test's own.
class NatKernelTest : public ::testing::Test {
 protected:
  void opensTable() { ASSERT_EQ(whyNot(map->open(NAT_RULESET_FILE)), ""); }

  /// What another program sees.
  static std::string seenByAnotherProgram(const std::string& command) {
    LibNftables other;
    const Result<std::string> seen = other.run(command);
    return seen ? *seen : seen.why();
  }

  static bool comesToHold(const std::function<bool()>& condition) {
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > limit) return false;
      sched_yield();
    }
    return true;
  }

  /// To the client's port 80, or another one.
  [[nodiscard]] Rule rule(const RuleKey& of, uint16_t clientPort = 80) const {
    return {.key = of, .client = {client.address, clientPort}};
  }

  FreshNetwork network;
  std::unique_ptr<LibNftables> nftables = std::make_unique<LibNftables>();
  std::unique_ptr<NatMap> map = std::make_unique<NatMap>(*nftables);
  const RuleKey key{.external = {.address = ip("45.45.45.1"), .port = 8080}, .protocol = 6};
  const Endpoint client{.address = ip("192.168.88.10"), .port = 80};
};

/// A protocol as nftables lists it: by its name, where the machine has /etc/protocols.
inline std::string listed(int protocol) {
  const protoent* const entry = getprotobynumber(protocol);
  return entry ? entry->p_name : std::to_string(protocol);
}

}  // namespace lumen::test
