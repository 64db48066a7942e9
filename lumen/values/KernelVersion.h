#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace lumen {

/// The version of a Linux kernel.
struct KernelVersion {
  unsigned major = 0;
  unsigned minor = 0;

  /// Reads the release of a kernel, "6.1.0-28-amd64"; none for a text that does not begin with two
  /// such numbers.
  [[nodiscard]] static std::optional<KernelVersion> parse(std::string_view release);

  /// "6.1".
  [[nodiscard]] std::string text() const;

  constexpr auto operator<=>(const KernelVersion&) const = default;
};

/// The first with nftables tables that only their owner can change, which lumend needs.
inline constexpr KernelVersion oldestKernel = {.major = 5, .minor = 12};

}  // namespace lumen
