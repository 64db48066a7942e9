#include "pcp/server/Listeners.h"

#include <algorithm>
#include <chrono>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/Time.h"

namespace pcp {

namespace {

constexpr std::chrono::seconds retryPeriod(3);

}  // namespace

void Listeners::listenAt(std::vector<Place> places) {
  wanted_ = std::move(places);
  update();
}

void Listeners::update() {
  retry_.stop();
  std::erase_if(sockets_, [this](const auto& entry) {
    return std::ranges::find(wanted_, entry.first, &Place::link) == wanted_.end();
  });
  std::string problem;
  for (const Place& place : wanted_) {
    if (const auto it = sockets_.find(place.link); it != sockets_.end()) {
      it->second->setPlace(place);
      continue;
    }
    auto socket = std::make_unique<LanSocket>(family_, place, site_);
    if (const auto opened = socket->open()) {
      sockets_.emplace(place.link, std::move(socket));
    } else if (problem.empty()) {
      problem = opened.why();
    }
  }
  if (std::exchange(problem_, problem) != problem && !problem.empty()) {
    lm::logLine("pcp: ", problem);
  }
  if (!problem_.empty()) {
    retry_.start<&Listeners::update>(*this, lumen::timerDelay(retryPeriod));
  }
}

void Listeners::announce(std::span<const uint8_t> datagram) {
  for (const auto& [link, socket] : sockets_) socket->announce(datagram);
}

std::set<std::string> Listeners::served() const {
  std::set<std::string> names;
  for (const auto& [link, socket] : sockets_) names.insert(link.name);
  return names;
}

}  // namespace pcp
