#pragma once

#include <chrono>
#include <optional>

#include "lumen/services/nat/Rule.h"
#include "lumen/values/Result.h"
#include "platform/message.h"

namespace lumen {

/// What an add request asks for.
struct RuleRequest {
  Rule rule;                                  ///< its key, client and disabled flag
  std::optional<std::chrono::seconds> lease;  ///< none: permanent
  bool anyPort = false;                       ///< its external port is a wish, 0: none
};

/// Fails when the table cannot hold such a rule. Whether the router has the address and the policy
/// allows the rule is not checked.
[[nodiscard]] Result<RuleRequest> readRule(const lm::message& request);

/// What a set request changes. A field that is absent stays as it is.
struct RuleChange {
  std::optional<bool> disabled;
  std::optional<Ipv4Address> clientAddress;
  std::optional<uint16_t> clientPort;
  std::optional<std::chrono::seconds> lease;  ///< from now
  std::optional<Ipv4Networks> remotes;        ///< instead of those that it has
  bool close = false;                         ///< then nothing else is present
};

/// Fails when the request says something else.
[[nodiscard]] Result<RuleChange> readChange(const lm::message& request);

/// What a record shows beside the rule itself.
struct RuleStatus {
  std::chrono::seconds age{0};
  std::optional<uint64_t> connections = std::nullopt;  ///< none: unknown
  bool stale = false;
  std::optional<uint64_t> uses = std::nullopt;              ///< none: unknown
  std::optional<std::chrono::seconds> left = std::nullopt;  ///< of its lease; none: permanent
};

/// The rule as it is listed: the fields of the add request in their order, then the others.
[[nodiscard]] lm::message ruleRecord(uint32_t id, const Rule& rule, const RuleStatus& status);

}  // namespace lumen
