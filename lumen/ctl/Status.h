#pragma once

#include <string>
#include <vector>

#include "lumen/ctl/Router.h"
#include "lumen/ctl/Session.h"

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
  };

  Status() = default;
  /// Never starts a gateway that does not run.
  explicit Status(Router& router);

  /// An object of the state, the interfaces and the ports.
  [[nodiscard]] Json json() const;

  std::string gateway;  ///< its state in a few words
  std::string detail;   ///< what else people want to know of it; may be empty
  std::vector<Use> interfaces;
  std::vector<NatRule> rules;
};

/// What people read where there is no interface, and no open port.
inline constexpr const char* noInterfaceText = "No interface is set up: lumenctl upnp setup";
inline constexpr const char* noPortText = "No port is open.";

}  // namespace lumenctl
