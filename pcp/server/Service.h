#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "lumen/runtime/Clock.h"
#include "pcp/codec/IpAddress.h"
#include "pcp/server/LanServer.h"
#include "pcp/server/PlatformPinholes.h"
#include "pcp/server/PlatformPorts.h"
#include "platform/Handler.h"
#include "platform/Store.h"
#include "platform/Timer.h"

namespace pcp {

/// Opens ports for the hosts on the LAN that ask in NAT-PMP or PCP: its settings, as a handler of
/// the platform (platform/wire/Pcp.h), and what it serves. While it is switched off it leaves the
/// loop.
class Service : public lm::Handler {
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
  void start();
  void stop();
  void readSides();

  lm::Store store_;
  Settings settings_;
  bool started_ = false;

  PlatformPorts ports_;
  PlatformPinholes pinholes_;
  LanServer ipv4_;
  LanServer ipv6_;
  lm::Timer change_;  // waits for more notifications of a change of the sides
};

}  // namespace pcp
