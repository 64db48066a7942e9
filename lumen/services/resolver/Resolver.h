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
#include "lumen/services/resolver/FailureMemory.h"
#include "lumen/services/resolver/Lookup.h"
#include "lumen/services/resolver/Patience.h"
#include "platform/Handler.h"
#include "platform/Timer.h"

namespace lumen {

/// Answers which IPv4 address a host has, for many requesters at a time and each within a second.
/// A lookup that failed is answered from memory for a minute, without another question to a name
/// server; addresses are not remembered, since the name servers do that.
///
/// The program leaves when it has not looked anything up for a minute: by then it has forgotten
/// every failure, so that its next life knows as much.
class Resolver : public lm::Handler, private Lookup::Owner {
 public:
  static constexpr std::chrono::minutes idleLife{1};
  /// Each can hold several sockets. Who comes beyond is refused at once: in a queue it would wait
  /// longer than the second that it has.
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
  FailureMemory failures_;
  Patience patience_;
  std::map<std::string, std::unique_ptr<Question>> questions_;  // by name
};

}  // namespace lumen
