#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lumen/values/Ipv4.h"
#include "lumen/values/Ipv6.h"
#include "lumen/values/Result.h"

namespace lumen {

/// A network link of the kernel.
struct Link {
  uint32_t index = 0;         ///< kernel index, above 0
  uint32_t hardwareType = 0;  ///< ARPHRD_*
  bool loopback = false;      ///< IFF_LOOPBACK
  bool up = false;            ///< IFF_UP
  bool running = false;       ///< IFF_UP and IFF_RUNNING
  std::string name;
};

struct LinkCounters {
  uint64_t bytesReceived = 0;
  uint64_t bytesSent = 0;
  uint64_t packetsReceived = 0;
  uint64_t packetsSent = 0;
};

struct LinkStatus {
  Link link;
  LinkCounters counters;
};

/// An IPv4 address of a link, and the network that it reaches there. A link may hold the same
/// address more than once, with different networks.
struct LinkAddress {
  Ipv4Address address;
  Ipv4Network network;  ///< on a point-to-point link the peer's
  std::optional<Ipv4Address> broadcast;

  auto operator<=>(const LinkAddress&) const = default;
};

/// An IPv6 address of a link, and the network that it reaches there.
struct Ipv6LinkAddress {
  Ipv6Address address;
  Ipv6Network network;  ///< on a point-to-point link the peer's

  auto operator<=>(const Ipv6LinkAddress&) const = default;
};

/// All links and their addresses, by kernel index.
struct LinkSnapshot {
  std::map<uint32_t, Link> links;
  std::map<uint32_t, std::set<LinkAddress>> addresses;
  std::map<uint32_t, std::set<Ipv6LinkAddress>> ipv6Addresses = {};
};

/// A route as the kernel reported it, so that it can be restored as it was.
struct Route {
  uint32_t link = 0;     ///< kernel index of the link by which it leaves
  bool gateway = false;  ///< its next hop is a host that another route must reach
  /// A struct rtmsg and its attributes (linux/rtnetlink.h), in this machine's byte order.
  std::string content;

  bool operator==(const Route&) const = default;
};

/// The kernel's links, addresses and routes.
class Links {
 public:
  /// Is notified of every change, in the kernel's order, from the event loop and never from inside
  /// another call of Links but start.
  class Listener {
   public:
    virtual ~Listener() = default;
    /// Everything was read: at the start, and whenever changes were lost.
    virtual void tablesRead(const LinkSnapshot& all) = 0;
    /// A link is new, or something about it may have changed, its name included.
    virtual void linkChanged(const Link& link) = 0;
    virtual void linkGone(uint32_t index) = 0;
    /// May be repeated for an address that is known already.
    virtual void addressAdded(uint32_t index, const LinkAddress& address) = 0;
    virtual void addressRemoved(uint32_t index, const LinkAddress& address) = 0;
    // The same of IPv6, which few listeners need.
    virtual void ipv6AddressAdded(uint32_t index, const Ipv6LinkAddress& address) {
      (void)index;
      (void)address;
    }
    virtual void ipv6AddressRemoved(uint32_t index, const Ipv6LinkAddress& address) {
      (void)index;
      (void)address;
    }
  };

  virtual ~Links() = default;

  /// Reads the tables and notifies `listener`, then of each change. `listener` must outlive this.
  virtual void start(Listener& listener) = 0;

  /// The link as it is now, even if the listener has not been notified yet. None when there is no
  /// such link.
  [[nodiscard]] virtual std::optional<LinkStatus> read(uint32_t index) = 0;

  /// Takes a link up or down. The listener is notified of the change later.
  [[nodiscard]] virtual Result<void> setUp(uint32_t index, bool up) = 0;

  /// The IPv4 and IPv6 routes by that link that an administrator or a program made: neither those
  /// of the table "local" nor those that the kernel makes itself, and no more than an administrator
  /// would type.
  [[nodiscard]] virtual Result<std::vector<Route>> routes(uint32_t index) = 0;

  /// Restores a route, by the link `index` where it left by `route.link`. Returns 0 or the kernel's
  /// errno, which decides about the next try: EEXIST when there is such a route, EINVAL for a
  /// content that is no route, EIO when the kernel could not be asked.
  [[nodiscard]] virtual int addRoute(const Route& route, uint32_t index) = 0;
};

}  // namespace lumen
