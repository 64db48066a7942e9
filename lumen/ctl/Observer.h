#pragma once

#include "lumen/ctl/Observation.h"
#include "lumen/ctl/Session.h"

namespace lumenctl {

/// Reads what `upnp check` looks at. What cannot be read is missing; it throws nothing.
[[nodiscard]] Observation observe(Session& session);

}  // namespace lumenctl
