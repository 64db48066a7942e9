#include "pcp/server/LanServer.h"

#include <utility>

#include "lumen/runtime/Time.h"

namespace pcp {

LanServer::LanServer(LanSocket::Family family, Ports& ports, const std::set<IpAddress>& agents,
                     const lm::Clock& clock)
    : family_(family),
      table_(ports, clock),
      epoch_(clock),
      responder_(table_, epoch_, agents),
      limit_(clock),
      announcements_(clock),
      listeners_(family, *this) {}

void LanServer::start() {
  epoch_.restart();
  announcements_.begin();
}

void LanServer::stop() {
  announce_.stop();
  announcements_.stop();
  listeners_.listenAt({});
  table_.setExternal(std::nullopt);
  table_.clear();
}

void LanServer::serveAt(std::vector<Place> places, std::optional<lumen::Ipv4Address> external) {
  listeners_.listenAt(std::move(places));
  if (external != table_.external()) {
    table_.setExternal(external);
    start();
  }
  announceDue();
}

void LanServer::announceDue() {
  if (announcements_.take()) {
    if (family_ == LanSocket::Family::ipv4) listeners_.announce(responder_.natPmpAnnouncement());
    listeners_.announce(responder_.pcpAnnouncement());
  }
  announce_.stop();
  if (const auto wait = announcements_.untilNext()) {
    announce_.start<&LanServer::announceDue>(*this, lumen::timerDelay(*wait));
  }
}

std::optional<std::vector<uint8_t>> LanServer::answer(std::span<const uint8_t> datagram,
                                                      const IpAddress& source) {
  if (!limit_.admits(source)) return std::nullopt;
  return responder_.answer(datagram, source);
}

}  // namespace pcp
