#pragma once

#include <algorithm>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <variant>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Ipv4.h"
#include "pcp/codec/IpAddress.h"
#include "pcp/codec/Pcp.h"
#include "pcp/table/Ports.h"

namespace pcp {

/// The mappings of all clients. Each is one open port: of the router, which translates it, or of an
/// IPv6 client itself.
class MappingTable {
 public:
  /// The shortest and the longest lifetime of a mapping in seconds (RFC 6887 section 15).
  static constexpr uint32_t shortest = 120;
  static constexpr uint32_t longest = 24 * 60 * 60;
  static constexpr size_t mostPerClient = 64;
  static constexpr size_t most = 16384;
  /// How many networks the filters of a mapping can name.
  static constexpr size_t mostRemotes = 8;

  /// What a client maps.
  struct Target {
    uint8_t protocol = 0;  ///< IPPROTO_TCP or IPPROTO_UDP
    uint16_t port = 0;     ///< internal, not 0

    auto operator<=>(const Target&) const = default;
  };

  /// Which networks may use a mapping, as one request changes it.
  struct FilterWish {
    bool forget = false;  ///< the networks that it had
    Networks networks{};
  };

  struct Wish {
    Nonce nonce = {};  ///< zeros for NAT-PMP
    IpAddress client{};
    Target target{};
    uint16_t port = 0;   ///< external; 0: any
    bool exact = false;  ///< no other external port will do
    FilterWish filter{};
    uint32_t lifetime = 0;
    bool noLonger = false;  ///< than `lifetime`, even below the shortest
  };

  struct Assigned {
    Endpoint external;
    uint32_t lifetime = 0;
  };

  /// Both must outlive this.
  MappingTable(Ports& ports, const lm::Clock& clock) : ports_(ports), clock_(clock) {}
  MappingTable(const MappingTable&) = delete;
  MappingTable& operator=(const MappingTable&) = delete;

  /// The address at which ports of IPv4 clients are opened. With another one, or none, all mappings
  /// end.
  void setExternal(std::optional<lumen::Ipv4Address> address);
  [[nodiscard]] std::optional<lumen::Ipv4Address> external() const { return external_; }
  /// The address at which ports of this client are opened, an IPv6 client's own one; none for now.
  [[nodiscard]] std::optional<IpAddress> externalOf(const IpAddress& client) const;

  /// Opens a port or renews its lease; keeps the external port of a mapping that exists. Never a
  /// port that another client has for the other protocol. An error changes nothing.
  [[nodiscard]] std::variant<Assigned, ResultCode> map(const Wish& wish);
  /// Ends a mapping; success also when there is none.
  [[nodiscard]] ResultCode unmap(const IpAddress& client, Target target, const Nonce& nonce);
  /// Ends the mappings of this protocol that have this nonce. An error: others are left.
  [[nodiscard]] ResultCode unmapAll(const IpAddress& client, uint8_t protocol, const Nonce& nonce);

  /// Where the target can be reached already by what another service of the router, or its
  /// administrator, has opened; none: nowhere, or there is a mapping.
  [[nodiscard]] std::optional<Endpoint> openByOthers(const IpAddress& client, Target target);

  /// The router has closed the port.
  void ended(uint32_t id);
  /// The administrator has closed the port, so that its client cannot open it before the lease is
  /// over; or that is undone.
  void setClosed(uint32_t id, bool closed);
  /// Ends all mappings.
  void clear();

  /// The lifetime that a client gets which asks for this one.
  [[nodiscard]] static uint32_t granted(uint32_t lifetime, uint32_t least = shortest) {
    return std::clamp(lifetime, least, longest);
  }
  /// How long the lease of a mapping will last, in seconds; none: there is no mapping.
  [[nodiscard]] std::optional<uint32_t> left(const IpAddress& client, Target target) const;
  [[nodiscard]] size_t size() const { return mappings_.size(); }

 private:
  struct Key {
    IpAddress client;
    Target target;

    auto operator<=>(const Key&) const = default;
  };

  struct Mapping {
    Nonce nonce;
    uint32_t id = 0;  // of the port
    Endpoint external;
    Networks remotes;
    lm::Clock::Time end;
    bool closed = false;  // by the administrator
  };

  using Mappings = std::map<Key, Mapping>;

  /// The client that has an external port, for one protocol or both.
  struct Holder {
    IpAddress client;
    unsigned mappings = 0;
  };

  [[nodiscard]] std::variant<Assigned, ResultCode> open(const Wish& wish, uint32_t lifetime);
  [[nodiscard]] std::variant<Ports::Open, Ports::Failure> openPort(Ports::Wish wish);
  [[nodiscard]] bool mayHave(const Ports::Wish& wish, uint16_t port) const;
  [[nodiscard]] std::variant<Assigned, ResultCode> renew(Mappings::iterator mapping,
                                                         const Wish& wish, uint32_t lifetime);
  [[nodiscard]] size_t countOf(const IpAddress& client) const;
  void forgetEnded(Mappings::iterator from, Mappings::iterator to);
  Mappings::iterator forget(Mappings::iterator mapping);

  Ports& ports_;
  const lm::Clock& clock_;
  std::optional<lumen::Ipv4Address> external_;
  Mappings mappings_;
  std::map<uint32_t, Key> byId_;
  std::map<Endpoint, Holder> holders_;
};

}  // namespace pcp
