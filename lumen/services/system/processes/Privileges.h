#pragma once

#include <span>

#include "lumen/values/Result.h"

namespace lumen {

/// What lumend keeps: CAP_NET_ADMIN for links, addresses and NAT; CAP_SETUID, CAP_SETGID and
/// CAP_KILL for its services, and CAP_NET_BIND_SERVICE for those whose service file grants it.
[[nodiscard]] std::span<const unsigned> neededCapabilities();

/// The same and what it takes to set up a private root directory.
[[nodiscard]] std::span<const unsigned> capabilitiesForPrivateRoot();

/// Fails unless this process is root and has all `capabilities`; says which it lacks.
[[nodiscard]] Result<void> checkPrivileges(std::span<const unsigned> capabilities);

/// Permanently gives up every other capability, in this process and all its descendants.
[[nodiscard]] Result<void> keepCapabilities(std::span<const unsigned> capabilities);

}  // namespace lumen
