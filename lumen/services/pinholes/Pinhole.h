#pragma once

#include <compare>
#include <cstdint>
#include <string>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Ipv6.h"
#include "lumen/values/Ipv6NetworkList.h"

namespace lumen {

/// What identifies a pinhole: one protocol's packets to one port of a host.
struct PinholeKey {
  Ipv6Address host;
  uint8_t protocol = 0;  ///< IPPROTO_TCP or IPPROTO_UDP
  uint16_t port = 0;

  auto operator<=>(const PinholeKey&) const = default;
};

/// A port of a host that the Internet may reach.
struct Pinhole {
  PinholeKey key;
  Ipv6NetworkList remotes{};  ///< from where packets may come; none: anywhere
  std::string interface {};   ///< the internal one that its host was at
  uint64_t connection = 0;    ///< of its owner
  std::string owner{};        ///< service name
  uint32_t user = 0;          ///< of its process
  lm::Clock::Time addedAt{};
  lm::Clock::Time until{};  ///< the end of its lease

  /// Whether packets from this address may pass.
  [[nodiscard]] bool admits(const Ipv6Address& remote) const;
};

/// "tcp port 8080 of 2001:db8::10".
[[nodiscard]] std::string keyText(const PinholeKey& key);

}  // namespace lumen
