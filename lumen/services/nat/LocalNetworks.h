#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lumen/values/Ipv4.h"

namespace lumen {

/// What the NAT rules need to know about this router's addresses.
class LocalNetworks {
 public:
  virtual ~LocalNetworks() = default;

  /// The id of the interface that holds `address`; none when it is not this router's. An address
  /// whose interface is not running counts.
  [[nodiscard]] virtual std::optional<uint32_t> interfaceOf(Ipv4Address address) const = 0;

  /// Whether packets to `address` stay on this router: an interface or the loopback holds it.
  [[nodiscard]] virtual bool isOwn(Ipv4Address address) const = 0;

  /// Whether `address` is the network address or the broadcast address of a directly connected
  /// network. Packets to it reach many hosts, this router among them.
  [[nodiscard]] virtual bool isReserved(Ipv4Address address) const = 0;

  /// The id of the interface whose network contains `host`; none when it is not directly
  /// connected, isOwn() or isReserved().
  [[nodiscard]] virtual std::optional<uint32_t> interfaceTowards(Ipv4Address host) const = 0;
};

/// What the NAT rules must know of this router's interfaces.
class KnownInterfaces {
 public:
  struct Known {
    std::string name;
    uint32_t index = 0;     ///< of the kernel; 0: its link is away
    bool internal = false;  ///< the administrator has made it so
  };

  virtual ~KnownInterfaces() = default;

  /// None when there is no interface with this id.
  [[nodiscard]] virtual std::optional<Known> known(uint32_t interface) const = 0;
};

}  // namespace lumen
