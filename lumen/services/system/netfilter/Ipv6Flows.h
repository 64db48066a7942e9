#pragma once

#include <compare>
#include <cstdint>

#include "lumen/values/Ipv6.h"

namespace lumen {

/// An IPv6 flow of UDP that the kernel tracks, as its first packet was.
struct Ipv6Flow {
  Ipv6Address source;
  Ipv6Address destination;
  uint16_t port = 0;  ///< of the destination

  auto operator<=>(const Ipv6Flow&) const = default;
};

/// The kernel's connection tracking of IPv6.
class Ipv6Flows {
 public:
  /// Judges flows, one at a time. Called from the event loop; may not call Ipv6Flows from `ends`.
  class Sweeper {
   public:
    virtual ~Sweeper() = default;
    /// Whether the flow must end.
    [[nodiscard]] virtual bool ends(const Ipv6Flow& flow) = 0;
    /// The sweep is over. Not `complete`: because of an error, which is in the log, some flows were
    /// not offered or not ended.
    virtual void swept(bool complete) = 0;
  };

  virtual ~Ipv6Flows() = default;

  /// Offers `sweeper` all UDP flows with this connection label, which is below 128. Returns at
  /// once; the work is done in slices on the event loop. One sweep at a time. `sweeper` must
  /// outlive this.
  virtual void sweepUdp(uint32_t label, Sweeper& sweeper) = 0;
};

}  // namespace lumen
