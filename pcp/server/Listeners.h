#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "pcp/server/LanSocket.h"
#include "pcp/server/Sides.h"
#include "platform/Timer.h"

namespace pcp {

/// The sockets of all internal interfaces, for one version of IP.
class Listeners {
 public:
  /// `site` must outlive this.
  Listeners(LanSocket::Family family, LanSocket::Site& site) : family_(family), site_(site) {}
  Listeners(const Listeners&) = delete;
  Listeners& operator=(const Listeners&) = delete;

  /// Listens there and nowhere else. What fails is tried again every few seconds.
  void listenAt(std::vector<Place> places);

  /// Sends a datagram to all hosts.
  void announce(std::span<const uint8_t> datagram);

  /// The names of the interfaces.
  [[nodiscard]] std::set<std::string> served() const;
  /// Why a place is not served, one of them; empty: all are.
  [[nodiscard]] const std::string& problem() const { return problem_; }

 private:
  void update();

  LanSocket::Family family_;
  LanSocket::Site& site_;
  std::vector<Place> wanted_;
  std::map<Link, std::unique_ptr<LanSocket>> sockets_;
  std::string problem_;
  lm::Timer retry_;
};

}  // namespace pcp
