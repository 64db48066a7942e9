#include "lumen/services/nat/PortRights.h"

namespace lumen {

Result<void> PortRights::toOpenPorts() const {
  if (caller_.administrator || caller_.ports) return {};
  return Failure{"its service file does not say \"ports = yes\""};
}

Result<void> PortRights::toLease(std::optional<lm::Clock::Time::duration> lease) const {
  if (caller_.administrator || !caller_.ports || !caller_.ports->longestLease) return {};
  if (lease && *lease <= *caller_.ports->longestLease) return {};
  return Failure{"the longest lease that its service file allows is " +
                 std::to_string(caller_.ports->longestLease->count()) + " seconds"};
}

Result<void> PortRights::toOneMore(const std::string& what, size_t count) const {
  if (caller_.administrator || !caller_.ports) return {};
  if (!caller_.ports->most || count < *caller_.ports->most) return {};
  return Failure{"service " + caller_.name + " has all the " + what + " that its file allows it, " +
                 std::to_string(*caller_.ports->most)};
}

}  // namespace lumen
