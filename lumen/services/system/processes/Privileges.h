#pragma once

#include <span>
#include <string>
#include <string_view>

namespace lumen {

/// What lumend keeps: CAP_NET_ADMIN for links, addresses and NAT; CAP_SETUID, CAP_SETGID and
/// CAP_KILL for its services.
[[nodiscard]] std::span<const unsigned> neededCapabilities();

/// What a root directory of its own takes in addition, until it is set up.
[[nodiscard]] std::span<const unsigned> capabilitiesForPrivateRoot();

/// Says which of `capabilities` this process does not have; empty when it has all and is root.
[[nodiscard]] std::string missingPrivileges(std::span<const unsigned> capabilities);

/// Gives up every other capability for good, here and in every process that comes from this one.
/// False when the kernel refuses.
[[nodiscard]] bool keepCapabilities(std::span<const unsigned> capabilities);

/// Whether the kernel release `release` ("6.1.0-28-amd64") is at least major.minor.
[[nodiscard]] bool kernelIsAtLeast(std::string_view release, unsigned major, unsigned minor);

}  // namespace lumen
