#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Ipv4.h"
#include "pcp/codec/IpAddress.h"
#include "pcp/server/LanSocket.h"
#include "pcp/server/Listeners.h"
#include "pcp/server/Sides.h"
#include "pcp/table/Announcements.h"
#include "pcp/table/AnswerLimit.h"
#include "pcp/table/Epoch.h"
#include "pcp/table/MappingTable.h"
#include "pcp/table/Ports.h"
#include "pcp/table/Responder.h"
#include "platform/Timer.h"

namespace pcp {

/// Serves the hosts on the LAN by one version of IP. Each has an epoch of its own: pinholes do not
/// depend on the external IPv4 address.
class LanServer : private LanSocket::Site {
 public:
  /// `agents` may ask for other hosts. All must outlive this.
  LanServer(LanSocket::Family family, Ports& ports, const std::set<IpAddress>& agents,
            const lm::Clock& clock);
  LanServer(const LanServer&) = delete;
  LanServer& operator=(const LanServer&) = delete;

  /// Begins an epoch, which the next serveAt announces.
  void start();
  /// Ends all mappings, and listens nowhere.
  void stop();
  /// Listens there and nowhere else. With another external address, or none, the epoch is over
  /// (RFC 6887 section 8.5); IPv6 has none.
  void serveAt(std::vector<Place> places,
               std::optional<lumen::Ipv4Address> external = std::nullopt);

  [[nodiscard]] MappingTable& table() { return table_; }
  [[nodiscard]] const Listeners& listeners() const { return listeners_; }

 private:
  [[nodiscard]] std::optional<std::vector<uint8_t>> answer(std::span<const uint8_t> datagram,
                                                           const IpAddress& source) override;

  void announceDue();

  LanSocket::Family family_;
  MappingTable table_;
  Epoch epoch_;
  Responder responder_;
  AnswerLimit limit_;
  Announcements announcements_;
  Listeners listeners_;
  lm::Timer announce_;  // the next announcement
};

}  // namespace pcp
