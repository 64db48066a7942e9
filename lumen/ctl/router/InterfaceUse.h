#pragma once

#include "lumen/ctl/router/Snapshot.h"

namespace lumenctl {

/// How the gateway uses the interface, by its own answer; when it gave none, by the kept role.
[[nodiscard]] GatewayObject useOf(const Interface& interface, const GatewayReport& gateway);

}  // namespace lumenctl
