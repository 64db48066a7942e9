#include "lumen/services/system/processes/Privileges.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cap-ng.h>
#include <cerrno>
#include <cstring>
#include <string>

namespace lumen {

std::span<const unsigned> neededCapabilities() {
  static constexpr std::array<unsigned, 5> needed = {CAP_NET_ADMIN, CAP_SETUID, CAP_SETGID,
                                                     CAP_KILL, CAP_NET_BIND_SERVICE};
  return needed;
}

std::span<const unsigned> capabilitiesForPrivateRoot() {
  static constexpr std::array<unsigned, 8> needed = {
      CAP_NET_ADMIN,        CAP_SETUID, CAP_SETGID, CAP_KILL,
      CAP_NET_BIND_SERVICE, CAP_CHOWN,  CAP_FOWNER, CAP_DAC_OVERRIDE};
  return needed;
}

Result<void> checkPrivileges(std::span<const unsigned> capabilities) {
  if (geteuid() != 0) return Failure{"must be started by root"};
  if (capng_get_caps_process() != 0) return Failure{"cannot read its own capabilities"};
  std::string missing;
  for (const unsigned capability : capabilities) {
    if (capng_have_capability(CAPNG_PERMITTED, capability) != 0) continue;
    missing += missing.empty() ? "lacks " : ", ";
    missing += capng_capability_to_name(capability);
  }
  if (!missing.empty()) return Failure{missing};
  return {};
}

Result<void> keepCapabilities(std::span<const unsigned> capabilities) {
  const auto refused = [] {
    return Failure{std::string("cannot give up its privileges: ") + strerror(errno)};
  };
  if (capng_get_caps_process() != 0) return refused();
  // What a service can be given must be inheritable, and becomes that only while the bounding set
  // has it.
  if (std::ranges::find(capabilities, unsigned{CAP_NET_BIND_SERVICE}) != capabilities.end() &&
      (capng_update(CAPNG_ADD, CAPNG_INHERITABLE, CAP_NET_BIND_SERVICE) != 0 ||
       capng_apply(CAPNG_SELECT_CAPS) != 0)) {
    return refused();
  }
  const bool mayBound = capng_have_capability(CAPNG_EFFECTIVE, CAP_SETPCAP) != 0;
  capng_clear(CAPNG_SELECT_ALL);
  for (const unsigned capability : capabilities) {
    const auto inheritable = capability == CAP_NET_BIND_SERVICE ? CAPNG_INHERITABLE : 0;
    const auto sets = static_cast<capng_type_t>(CAPNG_EFFECTIVE | CAPNG_PERMITTED | inheritable);
    if (capng_update(CAPNG_ADD, sets, capability) != 0) return refused();
  }
  if (mayBound && capng_apply(CAPNG_SELECT_BOUNDS) != 0) return refused();
  if (capng_apply(CAPNG_SELECT_AMBIENT) != 0 || capng_apply(CAPNG_SELECT_CAPS) != 0 ||
      prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    return refused();
  }
  return {};
}

}  // namespace lumen
