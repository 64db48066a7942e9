#include "lumen/ctl/router/Snapshot.h"

#include <algorithm>

#include "lumen/ctl/text/Errors.h"
#include "platform/Keys.h"

namespace lumenctl {

namespace {

GatewayReport readGateway(Router& router, Starting starting) {
  const std::vector<Service> services = router.services();
  const auto it = std::find_if(services.begin(), services.end(), [](const Service& service) {
    return service.number == lm::service::gateway;
  });
  if (it == services.end()) return {GatewayState::notInstalled};
  switch (it->state) {
    case ServiceState::running:
      break;
    case ServiceState::starting:
      if (starting == Starting::isAwaited) break;
      return {GatewayState::starting};
    case ServiceState::waiting:
      return {GatewayState::crashed, 0, it->nextStart};
    case ServiceState::stopped:
    case ServiceState::leaving:
    case ServiceState::unknown:
      return {GatewayState::off};
  }
  GatewayReport report;
  report.process = it->pid;
  try {
    report.answer = router.gatewayConfiguration();
    const bool enabled = (*report.answer)->settings.enabled;
    report.state = enabled ? GatewayState::on : GatewayState::off;
  } catch (const Refused& refused) {
    report.answer = lumen::Failure{refused.what()};
    report.state = GatewayState::notAnswering;
  }
  return report;
}

GatewayObject useOf(const Interface& interface, const GatewayReport& gateway) {
  GatewayObject use;
  if (!gateway.answer || !gateway.answer->ok()) {
    use.role = interface.role;
    return use;
  }
  const std::vector<GatewayObject>& objects = (*gateway.answer)->objects;
  const auto it = std::find_if(objects.begin(), objects.end(), [&](const GatewayObject& object) {
    return object.interfaceId == interface.id;
  });
  return it == objects.end() ? use : *it;
}

}  // namespace

Snapshot readSnapshot(Router& router, Starting starting) {
  Snapshot snapshot;
  snapshot.rules = router.rules();
  const std::vector<Address> addresses = router.addresses();
  const std::vector<Interface> interfaces = router.interfaces();
  // Asked last, when it knows of these interfaces and addresses.
  snapshot.gateway = readGateway(router, starting);
  for (const Interface& interface : interfaces) {
    const GatewayObject use = useOf(interface, snapshot.gateway);
    if (use.role == Role::none) continue;
    snapshot.interfaces.push_back({interface, use, addressesOf(interface.id, addresses)});
  }
  return snapshot;
}

}  // namespace lumenctl
