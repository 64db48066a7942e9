#pragma once

#include <string_view>

#include "lumen/ctl/screen/Colours.h"

/// The states of what the platform lists. Each has one word, the same in tables and in JSON, in one
/// colour: good when it works, a warning when an administrator or a program made it not work, bad
/// when it should work and does not.
namespace lumenctl {

/// Of an interface.
enum class LinkState { running, noLink, down, away };

/// Of an open port.
enum class PortState {
  open,
  disabled,  ///< by the program that opened it
  closed,    ///< by an administrator
  stale,     ///< its external address has left the router
};

/// Of a program that the platform starts; see lm::broker::state.
enum class ServiceState { stopped, starting, running, leaving, waiting, unknown };

/// Of the gateway.
enum class GatewayState {
  on,
  off,
  starting,
  crashed,  ///< lumend will start it again
  notInstalled,
  notAnswering,
  notReachable,  ///< by any host of an internal interface
};

[[nodiscard]] StateWord wordFor(LinkState state);
[[nodiscard]] StateWord wordFor(PortState state);
[[nodiscard]] StateWord wordFor(ServiceState state);
[[nodiscard]] StateWord wordFor(GatewayState state);

/// The state that lumend calls `word`.
[[nodiscard]] ServiceState serviceState(std::string_view word);

}  // namespace lumenctl
