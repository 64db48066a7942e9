#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "lumen/ctl/router/Router.h"
#include "lumen/ctl/router/States.h"
#include "lumen/values/Result.h"

namespace lumenctl {

/// The gateway at one moment, as the platform and the gateway itself report it.
struct GatewayReport {
  GatewayState state = GatewayState::on;
  uint32_t process = 0;                   ///< 0: none
  std::chrono::milliseconds startsIn{0};  ///< of a crashed one
  /// What it answered, or why it did not; none: it was not asked.
  std::optional<lumen::Result<GatewayConfiguration>> answer = {};
};

/// An interface that has a role.
struct UsedInterface {
  Interface interface;
  /// How the gateway uses it; when it did not say, the role that the platform keeps.
  GatewayObject use;
  std::vector<lumen::Ipv4Address> addresses;
};

/// The router at one moment.
struct Snapshot {
  std::vector<NatRule> rules;
  std::vector<UsedInterface> interfaces;
  GatewayReport gateway;
  std::vector<Pinhole> pinholes;
  std::optional<WebPage> webPage;  ///< none: it is switched off
};

/// What becomes of a gateway that is starting.
enum class Starting { isReported, isAwaited };

/// Reads all of it. A request would start a gateway that is switched off, so the gateway is asked
/// only while it runs. Throws Refused when the platform does not answer.
[[nodiscard]] Snapshot readSnapshot(Router& router, Starting starting);

}  // namespace lumenctl
