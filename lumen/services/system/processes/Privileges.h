#pragma once

#include <span>

#include "lumen/values/Result.h"

namespace lumen {

/// What lumend keeps: CAP_NET_ADMIN for links, addresses and NAT; CAP_SETUID, CAP_SETGID and
/// CAP_KILL for its services.
[[nodiscard]] std::span<const unsigned> neededCapabilities();

/// What a root directory of its own takes in addition, until it is set up.
[[nodiscard]] std::span<const unsigned> capabilitiesForPrivateRoot();

/// Fails unless this process is root and has all `capabilities`; says which it lacks.
[[nodiscard]] Result<void> checkPrivileges(std::span<const unsigned> capabilities);

/// Gives up every other capability for good, here and in every process that comes from this one.
/// False when the kernel refuses.
[[nodiscard]] bool keepCapabilities(std::span<const unsigned> capabilities);

}  // namespace lumen
