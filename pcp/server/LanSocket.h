#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "lumen/values/Ipv4.h"
#include "lumen/values/Result.h"
#include "pcp/server/Sides.h"
#include "platform/Fd.h"
#include "platform/Watch.h"

namespace pcp {

/// UDP port 5351 of an internal interface, bound to it. The kernel spreads its hosts over several
/// sockets by their addresses: one that floods the router fills the queue of its own socket only.
class LanSocket {
 public:
  class Site {
   public:
    virtual ~Site() = default;
    /// The answer to a datagram; none: it gets none. Must not end the socket.
    [[nodiscard]] virtual std::optional<std::vector<uint8_t>> answer(
        std::span<const uint8_t> datagram, lumen::Ipv4Address source) = 0;
  };

  /// `site` must outlive this.
  LanSocket(Place place, Site& site) : place_(std::move(place)), site_(site) {}
  LanSocket(const LanSocket&) = delete;
  LanSocket& operator=(const LanSocket&) = delete;

  /// Begins to answer, always from the address that was asked, which must be one of the place.
  [[nodiscard]] lumen::Result<void> open();
  void setAddresses(std::vector<lumen::Ipv4Address> addresses) {
    place_.addresses = std::move(addresses);
  }

  /// Sends a datagram to all hosts, 224.0.0.1 port 5350, from each address of the place.
  void announce(std::span<const uint8_t> datagram);

 private:
  struct Lane {
    lm::Fd fd;
    lm::Watch watch;
  };
  static constexpr size_t laneCount = 16;

  bool ready(int fd);
  [[nodiscard]] bool answerOne(int fd);
  void send(std::span<const uint8_t> datagram, lumen::Endpoint to, lumen::Ipv4Address from);

  Place place_;
  Site& site_;
  std::array<Lane, laneCount> lanes_;
};

}  // namespace pcp
