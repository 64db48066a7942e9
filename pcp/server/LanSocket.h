#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "lumen/values/Result.h"
#include "pcp/codec/IpAddress.h"
#include "pcp/server/Sides.h"
#include "platform/Fd.h"
#include "platform/Watch.h"

namespace pcp {

/// UDP port 5351 of an internal interface, for one version of IP, bound to it. The kernel spreads
/// its hosts over several sockets by their addresses: one that floods the router fills the queue of
/// its own socket only.
class LanSocket {
 public:
  /// The versions of IP.
  enum class Family { ipv4, ipv6 };

  class Site {
   public:
    virtual ~Site() = default;
    /// The answer to a datagram; none: it gets none. Must not end the socket.
    [[nodiscard]] virtual std::optional<std::vector<uint8_t>> answer(
        std::span<const uint8_t> datagram, const IpAddress& source) = 0;
  };

  /// `site` must outlive this.
  LanSocket(Family family, Place place, Site& site)
      : family_(family), place_(std::move(place)), site_(site) {}
  LanSocket(const LanSocket&) = delete;
  LanSocket& operator=(const LanSocket&) = delete;

  /// Begins to answer, always from the address that was asked: one of the place, or any unicast
  /// address of IPv6 there, link-local ones too. A machine without IPv6 has nothing to serve by it:
  /// that is no failure.
  [[nodiscard]] lumen::Result<void> open();
  void setPlace(Place place) { place_ = std::move(place); }

  /// Sends a datagram to all hosts, port 5350 of 224.0.0.1 from each address of the place, or of
  /// ff02::1 from the link-local one: by that hosts know their router.
  void announce(std::span<const uint8_t> datagram);

 private:
  struct Lane {
    lm::Fd fd;
    lm::Watch watch;
  };
  static constexpr size_t laneCount = 16;

  bool ready(int fd);
  [[nodiscard]] bool answerOne(int fd);
  [[nodiscard]] bool isOwn(const IpAddress& address) const;
  [[nodiscard]] lumen::Failure failure(int error) const;

  Family family_;
  Place place_;
  Site& site_;
  std::array<Lane, laneCount> lanes_;
};

}  // namespace pcp
