#pragma once

#include "lumen/ctl/Session.h"
#include "lumen/ctl/check/Observation.h"

namespace lumenctl {

/// Reads what `upnp check` looks at. What cannot be read is missing; it throws nothing.
[[nodiscard]] Observation observe(Session& session);

}  // namespace lumenctl
