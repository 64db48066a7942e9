#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <variant>

#include "lumen/values/Ipv6NetworkList.h"
#include "pcp/codec/IpAddress.h"

namespace pcp {

/// A port of an address.
struct Endpoint {
  IpAddress address{};
  uint16_t port = 0;

  auto operator<=>(const Endpoint&) const = default;
};

/// Networks of remote hosts. Those of IPv4 are mapped into IPv6, as addresses are.
using Networks = lumen::Ipv6NetworkList;

/// The ports that the router lets the Internet reach: for IPv4 it forwards them, for IPv6 they are
/// pinholes of its firewall. A port is open for as long as its lease lasts.
class Ports {
 public:
  struct Wish {
    uint8_t protocol = 0;  ///< IPPROTO_TCP or IPPROTO_UDP
    Endpoint external{};   ///< the client itself for a pinhole
    bool exact = false;    ///< no other external port will do
    Endpoint client{};
    Networks remotes{};     ///< from where packets pass; none: anywhere
    uint32_t lifetime = 0;  ///< in seconds, not 0
  };

  struct Open {
    uint32_t id = 0;
    uint16_t port = 0;  ///< external
  };

  enum class Failure {
    conflict,   ///< that port is taken or no client's, or none is free
    forbidden,  ///< to this client, at this port, or to us
    full,
    gone,         ///< the port is no longer open
    network,      ///< the router does not forward
    unavailable,  ///< the router did not answer
  };

  virtual ~Ports() = default;

  [[nodiscard]] virtual std::variant<Open, Failure> add(const Wish& wish) = 0;
  /// Lets the lease last that many seconds from now, and replaces the remote networks unless they
  /// are none. A failure changes nothing.
  [[nodiscard]] virtual std::optional<Failure> renew(uint32_t id, uint32_t lifetime,
                                                     const std::optional<Networks>& remotes) = 0;
  virtual void remove(uint32_t id) = 0;
  /// The port of `external` by which another service of the router, or its administrator, has
  /// opened the client's port; none: they have not.
  [[nodiscard]] virtual std::optional<uint16_t> openByOthers(uint8_t protocol,
                                                             const IpAddress& external,
                                                             const Endpoint& client) = 0;
};

}  // namespace pcp
