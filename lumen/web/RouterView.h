#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumen/ctl/router/Snapshot.h"
#include "lumen/runtime/Clock.h"
#include "lumen/web/Picture.h"
#include "platform/Handler.h"
#include "platform/Timer.h"

namespace lumen::web {

/// Keeps a picture of the router by the platform's notifications. Only the numbers that no
/// notification carries are read when they are needed: the connections of ports, traffic, and the
/// memory of programs.
class RouterView {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    /// Gateway, interfaces, addresses or findings.
    virtual void stateChanged() = 0;
    virtual void portChanged(const lumenctl::NatRule& rule) = 0;
    virtual void portClosed(uint32_t id) = 0;
    virtual void pinholeChanged(const lumenctl::Pinhole& pinhole) = 0;
    virtual void pinholeClosed(uint32_t id) = 0;
    virtual void happened(const Happening& happening) = 0;
  };

  /// `handler` sends the requests. All must outlive this.
  RouterView(lm::Handler& handler, Listener& listener, const lm::Clock& clock);
  RouterView(const RouterView&) = delete;
  RouterView& operator=(const RouterView&) = delete;

  /// Reads everything and follows it from now on.
  void open();
  void close();
  /// Takes a notification.
  void notified(const lm::message& news);

  /// Reads the ports with their numbers of connections, and the pinholes, at most once a second.
  /// The listener hears of ports whose numbers have changed.
  void refreshPorts();
  /// Reads the services, whose memory no notification carries.
  void readServices();
  /// Reads the counters of external interfaces, at most once a second. Returns what they carried
  /// since the last call; nothing at the first one, or after a long pause.
  std::vector<Sample> refreshTraffic();

  [[nodiscard]] const Picture& picture() const { return picture_; }

 private:
  struct Topic {
    uint32_t command;
    std::vector<uint32_t> path;
  };
  [[nodiscard]] static std::vector<Topic> topics();

  [[nodiscard]] std::vector<lm::message> table(const std::vector<uint32_t>& path);
  void readState();
  void readGateway();
  void readInterfaces();
  void readPorts();
  void readPinholes();
  void readPast();
  void judge();
  void takeRule(const lm::message& record);
  void takePinhole(const lm::message& record);
  void takePortEvent(const lm::message& record);
  void takeChange(const lm::message& record);
  void add(Happening happening);

  lm::Handler& handler_;
  Listener& listener_;
  const lm::Clock& clock_;
  Picture picture_;
  lumenctl::GatewayReport gateway_;
  std::vector<lumenctl::Interface> allInterfaces_;
  std::string seen_;  // state and external addresses, for picture_.since
  bool open_ = false;
  bool reading_ = false;  // what is told to be happening is the past
  // By their ids, which rise: news of what was read in open() can come after it.
  uint32_t newestPortEvent_ = 0;
  uint32_t newestChange_ = 0;
  std::optional<lm::Clock::Time> portsReadAt_;
  std::optional<lm::Clock::Time> trafficReadAt_;
  lm::Timer change_;  // waits for more notifications of a change of the state
};

}  // namespace lumen::web
