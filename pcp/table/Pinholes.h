#pragma once

#include <cstdint>
#include <variant>

#include "lumen/values/Ipv6.h"

namespace pcp {

/// The ports of IPv6 hosts that the router lets the Internet reach. One is open for as long as its
/// lease lasts.
class Pinholes {
 public:
  struct Wish {
    lumen::Ipv6Address host{};
    uint8_t protocol = 0;  ///< IPPROTO_TCP or IPPROTO_UDP
    uint16_t port = 0;
    uint32_t lifetime = 0;  ///< in seconds, not 0
  };

  enum class Failure {
    conflict,     ///< another service has opened it
    forbidden,    ///< to this host, at this port, or to us
    full,         ///< no more for now
    network,      ///< the router does not forward IPv6
    unavailable,  ///< the router did not answer
  };

  virtual ~Pinholes() = default;

  /// The pinhole's id, or why there is none.
  [[nodiscard]] virtual std::variant<uint32_t, Failure> add(const Wish& wish) = 0;
  /// Lets the lease last that many seconds from now. False: the pinhole is no longer open.
  [[nodiscard]] virtual bool renew(uint32_t id, uint32_t lifetime) = 0;
  virtual void remove(uint32_t id) = 0;
};

}  // namespace pcp
