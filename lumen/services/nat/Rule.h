#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Ipv4.h"
#include "lumen/values/Ipv4Networks.h"

namespace lumen {

/// What identifies a rule in the kernel: one protocol's packets to one external endpoint.
struct RuleKey {
  Endpoint external;
  uint8_t protocol = 0;  ///< IPPROTO_TCP or IPPROTO_UDP

  auto operator<=>(const RuleKey&) const = default;
};

/// One open port. There are thousands: the members are in the order that needs no gaps.
struct Rule {
  RuleKey key;
  bool disabled = false;               ///< by its owner
  bool closed = false;                 ///< by the administrator, permanently
  Endpoint client{};                   ///< where its packets go
  uint32_t user = 0;                   ///< of the owner's process
  uint64_t connection = 0;             ///< of its owner
  const std::string* owner = nullptr;  ///< service name; one of RuleTable's, which outlives it
  Ipv4Networks remotes{};              ///< from where packets may come; none: anywhere
  lm::Clock::Time addedAt{};
  std::optional<lm::Clock::Time> until = std::nullopt;  ///< the end of its lease; none: permanent
  /// Connections counted before the rule last left the kernel; none: unknown.
  std::optional<uint64_t> earlierUses = 0;

  [[nodiscard]] bool inKernel() const { return !disabled && !closed; }
  /// Whether packets from this address may pass.
  [[nodiscard]] bool admits(Ipv4Address remote) const;
};

/// "tcp" or "udp".
[[nodiscard]] const char* protocolText(uint8_t protocol);
/// "tcp port 8080 of 45.45.45.1".
[[nodiscard]] std::string keyText(const RuleKey& key);

}  // namespace lumen
