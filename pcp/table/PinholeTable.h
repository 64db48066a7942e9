#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <variant>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Ipv6.h"
#include "pcp/codec/Pcp.h"
#include "pcp/table/MappingTable.h"
#include "pcp/table/Pinholes.h"

namespace pcp {

/// The mappings of IPv6 hosts. Each is a pinhole of the router's firewall: nothing is translated,
/// so a host's internal address and port are the external ones too.
class PinholeTable {
 public:
  using Target = MappingTable::Target;

  static constexpr size_t mostPerHost = MappingTable::mostPerClient;
  static constexpr size_t most = MappingTable::most;

  struct Wish {
    Nonce nonce = {};
    lumen::Ipv6Address host{};
    Target target{};
    bool exact = false;     ///< the host prefers a failure to another external port
    uint32_t lifetime = 0;  ///< in seconds
  };

  /// Both must outlive this.
  PinholeTable(Pinholes& pinholes, const lm::Clock& clock) : pinholes_(pinholes), clock_(clock) {}
  PinholeTable(const PinholeTable&) = delete;
  PinholeTable& operator=(const PinholeTable&) = delete;

  /// Opens a pinhole or renews its lease. Returns its lifetime in seconds; an error changes
  /// nothing.
  [[nodiscard]] std::variant<uint32_t, ResultCode> map(const Wish& wish);
  /// Ends a mapping; success also when there is none.
  [[nodiscard]] ResultCode unmap(const lumen::Ipv6Address& host, Target target, const Nonce& nonce);

  /// The router has closed the pinhole.
  void ended(uint32_t id);
  /// Ends all mappings.
  void clear();

  /// How long the lease of a mapping will last, in seconds; none: there is no mapping.
  [[nodiscard]] std::optional<uint32_t> left(const lumen::Ipv6Address& host, Target target) const;
  [[nodiscard]] size_t size() const { return mappings_.size(); }

 private:
  struct Key {
    lumen::Ipv6Address host;
    Target target;

    auto operator<=>(const Key&) const = default;
  };

  struct Mapping {
    Nonce nonce;
    uint32_t id = 0;  // of the pinhole
    lm::Clock::Time end;
  };

  using Mappings = std::map<Key, Mapping>;

  [[nodiscard]] std::variant<uint32_t, ResultCode> open(const Wish& wish, uint32_t lifetime);
  [[nodiscard]] size_t countOf(const lumen::Ipv6Address& host) const;
  void forgetEnded(Mappings::iterator from, Mappings::iterator to);
  Mappings::iterator forget(Mappings::iterator mapping);

  Pinholes& pinholes_;
  const lm::Clock& clock_;
  Mappings mappings_;
  std::map<uint32_t, Key> byId_;
};

}  // namespace pcp
