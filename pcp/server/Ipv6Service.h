#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Ipv6.h"
#include "pcp/codec/IpAddress.h"
#include "pcp/server/Ipv6Socket.h"
#include "pcp/server/PlatformPinholes.h"
#include "pcp/server/Sides.h"
#include "pcp/table/Announcements.h"
#include "pcp/table/AnswerLimit.h"
#include "pcp/table/Epoch.h"
#include "pcp/table/MappingTable.h"
#include "pcp/table/Responder.h"
#include "platform/Handler.h"
#include "platform/Timer.h"

namespace pcp {

/// PCP by IPv6 for the hosts on the LAN: pinholes of the firewall. Its epoch is its own: pinholes
/// do not depend on the external IPv4 address.
class Ipv6Service : private Ipv6Socket::Site {
 public:
  /// `handler` sends the requests to the platform, `agents` may ask for other hosts. All must
  /// outlive this.
  Ipv6Service(lm::Handler& handler, const std::set<IpAddress>& agents, const lm::Clock& clock);
  Ipv6Service(const Ipv6Service&) = delete;
  Ipv6Service& operator=(const Ipv6Service&) = delete;

  /// Begins an epoch, which is announced.
  void start();
  /// Ends all mappings, and listens nowhere.
  void stop();
  /// Listens there and nowhere else. What fails is tried again every few seconds.
  void listenAt(std::vector<Link> links);
  /// The platform's news of a pinhole.
  void notified(const lm::message& record);

  [[nodiscard]] size_t mappings() const { return table_.size(); }
  /// The names of the interfaces that are served.
  [[nodiscard]] std::set<std::string> served() const;
  /// Why an interface is not served, one of them; empty: all are.
  [[nodiscard]] const std::string& problem() const { return problem_; }

 private:
  [[nodiscard]] std::optional<std::vector<uint8_t>> answer(
      std::span<const uint8_t> datagram, const lumen::Ipv6Address& source) override;

  void update();
  void announceDue();

  PlatformPinholes pinholes_;
  MappingTable table_;
  Epoch epoch_;
  Responder responder_;
  AnswerLimit limit_;
  Announcements announcements_;
  std::vector<Link> wanted_;
  std::map<Link, std::unique_ptr<Ipv6Socket>> sockets_;
  std::string problem_;
  lm::Timer retry_;
  lm::Timer announce_;  // the next announcement
};

}  // namespace pcp
