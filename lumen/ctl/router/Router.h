#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumen/ctl/router/Client.h"
#include "lumen/ctl/router/PortEvent.h"
#include "lumen/ctl/router/Records.h"

namespace lumenctl {

/// The router's services as calls. Each throws Refused with the platform's text when the platform
/// answers with an error, and PlatformSilent when there is no answer.
class Router {
 public:
  /// `client` must outlive this.
  explicit Router(Client& client) : client_(client) {}

  // Interfaces and addresses.
  [[nodiscard]] std::vector<Interface> interfaces();
  /// The one with this name; throws Refused when there is none.
  [[nodiscard]] Interface interfaceNamed(const std::string& name);
  [[nodiscard]] Counters counters(uint32_t interfaceId);
  /// Keeps the interface name with its role, whether there is a link of that name or not. Returns
  /// its id.
  uint32_t keep(const std::string& name, Role role);
  void forget(uint32_t interfaceId);
  [[nodiscard]] std::vector<Address> addresses();

  // Open ports.
  [[nodiscard]] std::vector<NatRule> rules();
  void closeRule(uint32_t id);
  [[nodiscard]] std::vector<Pinhole> pinholes();
  void closePinhole(uint32_t id);
  [[nodiscard]] PinholeSettings pinholeSettings();
  /// What happened to ports, the oldest first.
  [[nodiscard]] std::vector<PortEvent> portEvents();
  /// The newest refusals at ports where programs of the router listen, the oldest first.
  [[nodiscard]] std::vector<PortEvent> refusalsOfOwnPorts();
  /// From now on nextPortEvents() has each new event.
  void followPortEvents();
  /// Waits for the next ones. None when Client::notification gives none.
  [[nodiscard]] std::optional<std::vector<PortEvent>> nextPortEvents();
  [[nodiscard]] NatPolicy policy();
  void changePolicy(const NatPolicyChange& change);

  // Programs.
  [[nodiscard]] std::vector<Service> services();
  [[nodiscard]] std::string identity();

  // What was changed, the newest last.
  [[nodiscard]] std::vector<Change> history();
  /// Undoes the change. It stays in the history.
  void undo(const Change& change);
  void removeFromHistory(uint32_t id);

  // What programs say to each other.
  void startMonitoring();
  /// Waits for the next message that passes; it has the fields of lm::monitor::key. None
  /// when Client::notification gives none.
  [[nodiscard]] std::optional<lm::message> nextMonitored();

  // The status page; each of these starts its program when it does not run.
  [[nodiscard]] WebPage webPage();
  void changeWebPage(const WebPageChange& change);

  [[nodiscard]] PcpServer pcpServer();
  void changePcpServer(const PcpServerChange& change);

  // The gateway; each of these starts it when it does not run.
  /// From now on they wait no longer than `limit` for an answer.
  void waitForGateway(std::chrono::milliseconds limit) { gatewayLimit_ = limit; }
  [[nodiscard]] Settings settings();
  void writeSettings(const Settings& settings);
  [[nodiscard]] std::vector<GatewayObject> gatewayObjects();
  [[nodiscard]] GatewayConfiguration gatewayConfiguration();
  void addGatewayObject(const GatewayObject& object);
  void setGatewayObject(const GatewayObject& object);
  void removeGatewayObject(uint32_t id);

 private:
  lm::message exchange(const std::vector<uint32_t>& destination, uint32_t command,
                       lm::message request = {});
  /// Every record of a table, page by page.
  std::vector<lm::message> table(const std::vector<uint32_t>& destination, uint32_t command);

  /// How long an answer may take: the gateway may have to be started first (5 s), and may itself
  /// wait for the platform (6 s).
  static constexpr std::chrono::seconds usualLimit{15};

  Client& client_;
  std::chrono::milliseconds gatewayLimit_ = usualLimit;
};

}  // namespace lumenctl
