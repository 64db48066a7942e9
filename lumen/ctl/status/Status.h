#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lumen/ctl/Session.h"
#include "lumen/ctl/check/GatewaySockets.h"
#include "lumen/ctl/machine/Machine.h"
#include "lumen/ctl/router/Snapshot.h"

namespace lumenctl {

/// The router at one moment: whether the gateway works, what it works with, the open ports, and
/// those that were refused since the router's own programs listen there.
struct Status {
  Status() = default;
  /// Never starts a gateway that does not run.
  Status(Router& router, Machine& machine);

  /// An object of the version, the state, the interfaces, the ports and the refusals.
  [[nodiscard]] Json json() const;

  GatewayState gateway = GatewayState::on;
  std::string detail;  ///< more about the gateway, for people; may be empty
  std::vector<UsedInterface> interfaces;
  std::vector<NatRule> rules;
  std::vector<PortEvent> refusals;  ///< newest ones at ports of the router's own programs
  std::vector<Pinhole> pinholes;
  std::optional<WebPage> webPage;  ///< none: it is switched off

 private:
  /// Notes on which internal interfaces no host can reach a gateway that is switched on.
  void findUnreachable(const GatewaySockets& sockets);
};

/// Where the status page is, and what is wrong with it: "http://192.168.88.1/".
[[nodiscard]] std::string webPageText(const WebPage& page);

/// How the gateway uses the interface, in words: "internal, not used".
[[nodiscard]] std::string roleText(const UsedInterface& interface);

/// In one line, which names the program that listens at the port.
[[nodiscard]] std::string refusalText(const PortEvent& refusal);

/// What people read where there is no interface, and no open port.
inline constexpr const char* noInterfaceText = "No interface is set up: lumenctl upnp setup";
inline constexpr const char* noPortText = "No port is open.";

}  // namespace lumenctl
