#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "lumen/values/Ipv6.h"
#include "lumen/values/Result.h"
#include "pcp/server/Sides.h"
#include "platform/Fd.h"
#include "platform/Watch.h"

namespace pcp {

/// UDP port 5351 of an internal interface, for IPv6, bound to it: all unicast addresses that the
/// router has there, link-local ones too. As with IPv4, the kernel spreads the hosts over several
/// sockets by their addresses.
class Ipv6Socket {
 public:
  class Site {
   public:
    virtual ~Site() = default;
    /// The answer to a datagram; none: it gets none. Must not end the socket.
    [[nodiscard]] virtual std::optional<std::vector<uint8_t>> answer(
        std::span<const uint8_t> datagram, const lumen::Ipv6Address& source) = 0;
  };

  /// `site` must outlive this.
  Ipv6Socket(Link link, Site& site) : link_(std::move(link)), site_(site) {}
  Ipv6Socket(const Ipv6Socket&) = delete;
  Ipv6Socket& operator=(const Ipv6Socket&) = delete;

  /// Begins to answer, always from the address that was asked. A machine without IPv6 has nothing
  /// to serve: that is no failure.
  [[nodiscard]] lumen::Result<void> open();

  /// Sends a datagram to all hosts, ff02::1 port 5350, from the router's link-local address: by
  /// that hosts know their router.
  void announce(std::span<const uint8_t> datagram);

 private:
  struct Lane {
    lm::Fd fd;
    lm::Watch watch;
  };
  static constexpr size_t laneCount = 16;

  bool ready(int fd);
  [[nodiscard]] bool answerOne(int fd);

  Link link_;
  Site& site_;
  std::array<Lane, laneCount> lanes_;
};

}  // namespace pcp
