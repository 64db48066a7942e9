#include "pcp/server/Ipv6Service.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/Time.h"
#include "platform/Keys.h"
#include "platform/wire/Pinholes.h"

namespace pcp {

namespace {

constexpr std::chrono::seconds retryPeriod(3);

}  // namespace

Ipv6Service::Ipv6Service(lm::Handler& handler, const std::set<IpAddress>& agents,
                         const lm::Clock& clock)
    : pinholes_(handler),
      table_(pinholes_, clock),
      epoch_(clock),
      responder_(table_, epoch_, agents),
      limit_(clock),
      announcements_(clock) {}

void Ipv6Service::start() {
  epoch_.restart();
  announcements_.begin();
}

void Ipv6Service::stop() {
  announcements_.stop();
  announce_.stop();
  listenAt({});
  table_.clear();
}

void Ipv6Service::listenAt(std::vector<Link> links) {
  wanted_ = std::move(links);
  update();
  announceDue();
}

void Ipv6Service::notified(const lm::message& record) {
  if (record.get_u32(lm::key::removed) != 0) table_.ended(lm::pinholes::readRecord(record).id);
}

std::set<std::string> Ipv6Service::served() const {
  std::set<std::string> names;
  for (const auto& [link, socket] : sockets_) names.insert(link.name);
  return names;
}

std::optional<std::vector<uint8_t>> Ipv6Service::answer(std::span<const uint8_t> datagram,
                                                        const lumen::Ipv6Address& source) {
  const IpAddress host = {source.bytes()};
  if (!limit_.admits(host)) return std::nullopt;
  return responder_.answer(datagram, host);
}

void Ipv6Service::update() {
  retry_.stop();
  std::erase_if(sockets_, [this](const auto& entry) {
    return std::find(wanted_.begin(), wanted_.end(), entry.first) == wanted_.end();
  });
  std::string problem;
  Ipv6Socket::Site& site = *this;
  for (const Link& link : wanted_) {
    if (sockets_.contains(link)) continue;
    auto socket = std::make_unique<Ipv6Socket>(link, site);
    if (const auto opened = socket->open()) {
      sockets_.emplace(link, std::move(socket));
    } else if (problem.empty()) {
      problem = opened.why();
    }
  }
  if (std::exchange(problem_, problem) != problem && !problem.empty()) {
    lm::logLine("pcp: ", problem);
  }
  if (!problem_.empty()) {
    retry_.start<&Ipv6Service::update>(*this, lumen::timerDelay(retryPeriod));
  }
}

void Ipv6Service::announceDue() {
  if (announcements_.take()) {
    const std::vector<uint8_t> announcement = responder_.pcpAnnouncement();
    for (const auto& [link, socket] : sockets_) socket->announce(announcement);
  }
  announce_.stop();
  if (const auto wait = announcements_.untilNext()) {
    announce_.start<&Ipv6Service::announceDue>(*this, lumen::timerDelay(*wait));
  }
}

}  // namespace pcp
