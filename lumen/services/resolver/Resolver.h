#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/runtime/PendingReply.h"
#include "lumen/services/resolver/LateAddresses.h"
#include "lumen/services/resolver/Lookup.h"
#include "lumen/services/resolver/NegativeCache.h"
#include "lumen/services/resolver/WaitBudget.h"
#include "platform/Handler.h"
#include "platform/Timer.h"

namespace lumen {

/// Answers which IPv4 address a host has, for many requesters at a time and each within a second.
/// A failed lookup is answered from a negative cache for a minute, without another query to a name
/// server. Addresses are not cached, since the name servers do that, unless they came after their
/// requester had been refused: it finds them when it asks again.
///
/// The program leaves when it has not looked anything up for a minute: by then every cached failure
/// has expired, so that the next process knows as much.
class Resolver : public lm::Handler, private Lookup::Owner {
 public:
  static constexpr std::chrono::minutes idleTime{1};
  /// Each can hold several sockets. Further requests are refused at once: in a queue they would
  /// wait longer than their second.
  static constexpr size_t maxLookups = 128;

  /// The first of the `configurations`, paths of resolv.conf files, that exists is used, the last
  /// one if none does. `clock` must outlive this; there must be a Looper.
  Resolver(const lm::Clock& clock, std::vector<std::string> configurations);
  ~Resolver() override;

  [[nodiscard]] lm::message cmdUnknown(const lm::message& request, uint32_t command) override;

 private:
  class Question;

  void ask(const std::string& name);
  void lookedUp(const std::string& name, const Result<Ipv4Address>& result) override;
  [[nodiscard]] const std::string& configuration() const;

  const lm::Clock& clock_;
  const std::vector<std::string> configurations_;  // at least one
  NegativeCache failures_;
  LateAddresses late_;
  WaitBudget waitBudget_;
  std::map<std::string, std::unique_ptr<Question>> questions_;  // by name
};

}  // namespace lumen
