#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "lumen/runtime/Clock.h"
#include "lumen/web/EventStreams.h"
#include "lumen/web/HostNames.h"
#include "lumen/web/HttpServer.h"
#include "lumen/web/Listeners.h"
#include "lumen/web/Responses.h"
#include "lumen/web/RouterView.h"
#include "platform/Handler.h"
#include "platform/Store.h"
#include "platform/Timer.h"

namespace lumen::web {

/// The status page: its settings, as a handler of the platform (platform/wire/Web.h), and what it
/// serves. While it is switched off it leaves the loop.
class Web : public lm::Handler,
            private RouterView::Listener,
            private HttpServer::Site,
            private EventStreams::Source {
 public:
  struct Settings {
    bool enabled = false;
    uint16_t port = 80;
    std::set<std::string, std::less<>> names;  ///< in lower case
  };

  /// Reads the settings. `store` is a store directory; `clock` must outlive this.
  Web(std::string store, const lm::Clock& clock);
  ~Web() override;

  [[nodiscard]] const Settings& settings() const { return settings_; }

  /// Starts to serve if it is switched on. `bindsLowPorts`: this process can bind those below 1024.
  void init(bool bindsLowPorts);

  [[nodiscard]] lm::message cmdGet(const lm::message& request) override;
  [[nodiscard]] lm::message cmdSet(const lm::message& request) override;
  [[nodiscard]] lm::message cmdUnknown(const lm::message& request, uint32_t command) override;

 private:
  /// An answer that was made less than a second ago serves others, too.
  struct Kept {
    Response response;
    lm::Clock::Time madeAt;
  };

  void stateChanged() override;
  void portChanged(const lumenctl::NatRule& rule) override;
  void portClosed(uint32_t id) override;
  void pinholeChanged(const lumenctl::Pinhole& pinhole) override;
  void pinholeClosed(uint32_t id) override;
  void happened(const Happening& happening) override;
  [[nodiscard]] bool isOwn(std::string_view hostHeader) const override;
  [[nodiscard]] MHD_Result answer(const HttpServer::Request& request) override;
  [[nodiscard]] std::string beginning() override;
  [[nodiscard]] std::string portion(EventStreams::Cursor& cursor) override;
  [[nodiscard]] std::string ending() override;

  void start();
  void stop();
  void listen();
  [[nodiscard]] MHD_Result stream(const HttpServer::Request& request);
  [[nodiscard]] MHD_Result keep(const HttpServer::Request& request, const char* type,
                                const std::function<std::string()>& make);
  void send(const std::string& event);
  void sampleTraffic();
  void showLife();

  const lm::Clock& clock_;
  lm::Store store_;
  Settings settings_;
  bool bindsLowPorts_ = false;
  bool started_ = false;

  HostNames names_;
  RouterView view_;
  std::set<Ipv4Address> ownAddresses_;
  std::string lastState_;                          // as it was last sent to streams
  std::map<std::string, Kept, std::less<>> kept_;  // by path
  EventStreams streams_;
  HttpServer server_;
  Listeners listeners_;
  uint32_t trafficTicks_ = 0;
  lm::Timer traffic_;
  lm::Timer life_;
  lm::Timer run_;
};

}  // namespace lumen::web
