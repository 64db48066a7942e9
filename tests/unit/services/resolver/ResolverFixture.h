#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

#include "lumen/services/resolver/Resolver.h"
#include "platform/Looper.h"
#include "services/resolver/NameServer.h"
#include "support/LogCapture.h"
#include "support/PrivateNetwork.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace lumen::test {

/// A request for the address of a host.
[[nodiscard]] lm::message nameOf(const std::string& host);

/// A resolver and the name server that its resolv.conf names, in a network of their own.
class ResolverTest : public testing::Test {
 protected:
  ResolverTest();

  /// Asks for the address of the host and returns what the requester gets: an address, or the text
  /// of an error. Waits for it in real time; the clock stands still.
  std::string lookUp(const std::string& name);

  /// Asks, and lets the question reach the name server; returns what `answerTo` takes.
  uint32_t ask(const std::string& name);
  /// The answer to the requester, or "none yet".
  std::string answerTo(uint32_t request);
  /// Asks for a host for which the name server is silent, until that is an error.
  std::string failToLookUp(const std::string& name);

  void serverIsSilent();
  /// How often the name server was asked.
  [[nodiscard]] size_t questions() const { return server_.asked.size(); }

  PrivateNetwork network_;
  lm::test::TempDir etc_;
  lm::test::TestPlatform platform_;
  lm::Looper looper_{platform_.makeRuntime()};
  NameServer server_;
  lm::test::LogCapture log_;
  std::optional<Resolver> resolver_;
};

}  // namespace lumen::test
