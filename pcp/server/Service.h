#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Ipv4.h"
#include "pcp/codec/IpAddress.h"
#include "pcp/server/Ipv6Service.h"
#include "pcp/server/LanSocket.h"
#include "pcp/server/Listeners.h"
#include "pcp/server/PlatformPorts.h"
#include "pcp/table/Announcements.h"
#include "pcp/table/AnswerLimit.h"
#include "pcp/table/Epoch.h"
#include "pcp/table/MappingTable.h"
#include "pcp/table/Responder.h"
#include "platform/Handler.h"
#include "platform/Store.h"
#include "platform/Timer.h"

namespace pcp {

/// Opens ports for the hosts on the LAN that ask in NAT-PMP or PCP: its settings, as a handler of
/// the platform (platform/wire/Pcp.h), and what it serves. While it is switched off it leaves the
/// loop.
class Service : public lm::Handler, private LanSocket::Site {
 public:
  struct Settings {
    bool enabled = false;
    std::set<IpAddress> agents;  ///< the hosts that may ask for others
  };

  /// Reads the settings. `store` is a store directory; `clock` must outlive this.
  Service(std::string store, const lm::Clock& clock);
  ~Service() override;

  /// Starts to serve if it is switched on.
  void init();

  [[nodiscard]] lm::message cmdGet(const lm::message& request) override;
  [[nodiscard]] lm::message cmdSet(const lm::message& request) override;
  [[nodiscard]] lm::message cmdUnknown(const lm::message& request, uint32_t command) override;

 private:
  [[nodiscard]] std::optional<std::vector<uint8_t>> answer(std::span<const uint8_t> datagram,
                                                           lumen::Ipv4Address source) override;

  void start();
  void stop();
  void readSides();
  void announceDue();

  lm::Store store_;
  Settings settings_;
  bool started_ = false;

  PlatformPorts ports_;
  MappingTable table_;
  Epoch epoch_;
  Responder responder_;
  AnswerLimit limit_;
  Announcements announcements_;
  Listeners listeners_;
  Ipv6Service ipv6_;
  lm::Timer change_;    // waits for more notifications of a change of the sides
  lm::Timer announce_;  // the next announcement
};

}  // namespace pcp
