#pragma once

#include <cstdint>
#include <optional>

#include "lumen/values/Ipv4.h"

namespace lumen {

/// What the NAT rules must know of this router's addresses.
class LocalNetworks {
 public:
  virtual ~LocalNetworks() = default;

  /// The id of the interface that holds `address`; none when it is not this router's. An address
  /// whose interface is not running counts.
  [[nodiscard]] virtual std::optional<uint32_t> interfaceOf(Ipv4Address address) const = 0;

  /// Whether what is sent to `address` stays on this router: an interface holds it, or the
  /// loopback.
  [[nodiscard]] virtual bool isOwn(Ipv4Address address) const = 0;

  /// Whether `address` is the own address of a directly connected network or its broadcast address.
  /// What is sent there reaches many, this router among them.
  [[nodiscard]] virtual bool isReserved(Ipv4Address address) const = 0;

  /// The id of the interface whose own network `host` lies in; none when it is not directly
  /// connected, isOwn() or isReserved().
  [[nodiscard]] virtual std::optional<uint32_t> interfaceTowards(Ipv4Address host) const = 0;
};

}  // namespace lumen
