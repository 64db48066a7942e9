#pragma once

#include <cstdint>
#include <functional>
#include <set>

#include "lumen/values/Ipv4.h"

namespace lumen {

/// An IPv4 flow of TCP or UDP that the kernel tracks.
struct Flow {
  uint8_t protocol = 0;  ///< IPPROTO_TCP or IPPROTO_UDP
  Ipv4Address source{};  ///< who sent its first packet
  Endpoint destination;  ///< where its first packet was sent to
  Endpoint responder;    ///< who answers: another one when the destination was translated
};

/// The kernel's connection tracking.
class Flows {
 public:
  /// Judges flows, one at a time. Called from the event loop; may not call Flows from `ends`.
  class Sweeper {
   public:
    virtual ~Sweeper() = default;
    /// Whether the flow must end.
    [[nodiscard]] virtual bool ends(const Flow& flow) = 0;
    /// The sweep is over. Not `complete`: because of an error, which is in the log, some flows were
    /// not offered or not ended.
    virtual void swept(bool complete) = 0;
  };

  virtual ~Flows() = default;

  /// Offers `sweeper` all UDP flows that were sent to one of `destinations`. Returns at once; the
  /// work is done in slices on the event loop. One sweep at a time. `sweeper` must outlive this.
  virtual void sweepUdp(const std::set<Endpoint>& destinations, Sweeper& sweeper) = 0;

  /// Visits all flows whose destination was translated. Returns false, and logs why, when they
  /// could not all be read; it stops after a fifth of a second, since it holds up the loop.
  virtual bool visitTranslated(const std::function<void(const Flow&)>& visit) = 0;
};

}  // namespace lumen
