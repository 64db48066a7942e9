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

/// One open port.
struct Rule {
  RuleKey key;
  Endpoint client{};        ///< where its packets go
  Ipv4Networks remotes{};   ///< from where they may come; none: anywhere
  bool disabled = false;    ///< by its owner
  bool closed = false;      ///< by the administrator, permanently
  uint64_t connection = 0;  ///< of its owner
  std::string owner{};      ///< service name
  uint32_t user = 0;        ///< of the owner's process
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
