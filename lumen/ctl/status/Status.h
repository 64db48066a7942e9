#pragma once

#include <string>
#include <vector>

#include "lumen/ctl/Session.h"
#include "lumen/ctl/check/GatewaySockets.h"
#include "lumen/ctl/machine/Machine.h"
#include "lumen/ctl/router/Router.h"

namespace lumenctl {

/// The router at one moment: whether the gateway works, what it works with, and the open ports.
struct Status {
  /// An interface that has a role.
  struct Use {
    Interface interface;
    /// How the gateway uses it; when it did not say, what the platform keeps of it.
    GatewayObject object;
    std::vector<std::string> addresses;  ///< dotted

    [[nodiscard]] std::string role() const;  ///< in words
    /// Whether a gateway that is switched on has sockets there.
    [[nodiscard]] bool shouldServe() const;
  };

  Status() = default;
  /// Never starts a gateway that does not run.
  Status(Router& router, Machine& machine);

  /// An object of the state, the interfaces and the ports.
  [[nodiscard]] Json json() const;

  std::string gateway;  ///< its state in a few words
  std::string detail;   ///< what else people want to know of it; may be empty
  std::vector<Use> interfaces;
  std::vector<NatRule> rules;

 private:
  /// Says so of a gateway that is switched on and that no host of some or any internal interface
  /// can reach.
  void lookFor(const GatewaySockets& sockets);
};

/// What people read where there is no interface, and no open port.
inline constexpr const char* noInterfaceText = "No interface is set up: lumenctl upnp setup";
inline constexpr const char* noPortText = "No port is open.";

}  // namespace lumenctl
