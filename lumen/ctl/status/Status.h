#pragma once

#include <string>
#include <vector>

#include "lumen/ctl/Session.h"
#include "lumen/ctl/check/GatewaySockets.h"
#include "lumen/ctl/machine/Machine.h"
#include "lumen/ctl/router/Snapshot.h"

namespace lumenctl {

/// The router at one moment: whether the gateway works, what it works with, and the open ports.
struct Status {
  Status() = default;
  /// Never starts a gateway that does not run.
  Status(Router& router, Machine& machine);

  /// An object of the state, the interfaces and the ports.
  [[nodiscard]] Json json() const;

  GatewayState gateway = GatewayState::on;
  std::string detail;  ///< more about the gateway, for people; may be empty
  std::vector<UsedInterface> interfaces;
  std::vector<NatRule> rules;

 private:
  /// Notes on which internal interfaces no host can reach a gateway that is switched on.
  void findUnreachable(const GatewaySockets& sockets);
};

/// How the gateway uses the interface, in words: "internal, not used".
[[nodiscard]] std::string roleText(const UsedInterface& interface);

/// What people read where there is no interface, and no open port.
inline constexpr const char* noInterfaceText = "No interface is set up: lumenctl upnp setup";
inline constexpr const char* noPortText = "No port is open.";

}  // namespace lumenctl
