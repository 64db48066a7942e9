#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumen/values/Ipv4.h"
#include "platform/wire/Addresses.h"
#include "platform/wire/Interfaces.h"

namespace pcp {

/// An internal interface that runs.
struct Link {
  std::string name;
  uint32_t index = 0;  ///< of the kernel: another link of the same name is another one

  auto operator<=>(const Link&) const = default;
};

/// One, and the router's addresses there.
struct Place {
  Link link;
  std::vector<lumen::Ipv4Address> addresses{};  ///< those of IPv6 are not looked at

  bool operator==(const Place&) const = default;
};

/// Where the router meets its hosts and the Internet.
struct Sides {
  std::vector<Place> ipv4;  ///< those with an IPv4 address
  std::vector<Place> ipv6;  ///< all, without addresses
  std::optional<lumen::Ipv4Address> external;
};

/// The sides of a router that lists these interfaces and addresses. Of several external addresses
/// it is the `current` one, as long as it is there, or else the one that came first.
[[nodiscard]] Sides sidesOf(const std::vector<lm::interfaces::Record>& interfaces,
                            const std::vector<lm::addresses::Record>& addresses,
                            std::optional<lumen::Ipv4Address> current);

}  // namespace pcp
