#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace lumen {

/// What the file of a service that may open ports says about it.
struct PortGrant {
  std::optional<uint32_t> most = std::nullopt;  ///< rules at a time; none: as many as the policy
  /// Each rule must have a lease, and none longer than this; none: rules may be permanent.
  std::optional<std::chrono::seconds> longestLease = std::nullopt;

  bool operator==(const PortGrant&) const = default;
};

}  // namespace lumen
