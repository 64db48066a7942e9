#include "lumen/ctl/router/Snapshot.h"

#include <algorithm>

#include "lumen/ctl/router/InterfaceUse.h"
#include "lumen/ctl/text/Errors.h"
#include "platform/Keys.h"
#include "platform/wire/Web.h"

namespace lumenctl {

namespace {

/// What the status page says of itself, if its program runs.
std::optional<WebPage> readWebPage(Router& router, const std::vector<Service>& services) {
  const bool runs = std::any_of(services.begin(), services.end(), [](const Service& service) {
    return service.number == lm::service::web && service.state == ServiceState::running;
  });
  if (!runs) return std::nullopt;
  try {
    return router.webPage();
  } catch (const Refused&) {  // it has ended since
    return std::nullopt;
  }
}

GatewayReport readGateway(Router& router, const std::vector<Service>& services, Starting starting) {
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

}  // namespace

Snapshot readSnapshot(Router& router, Starting starting) {
  Snapshot snapshot;
  snapshot.rules = router.rules();
  snapshot.pinholes = router.pinholes();
  const std::vector<Address> addresses = router.addresses();
  const std::vector<Interface> interfaces = router.interfaces();
  // Asked last, when it knows of these interfaces and addresses.
  const std::vector<Service> services = router.services();
  snapshot.gateway = readGateway(router, services, starting);
  snapshot.webPage = readWebPage(router, services);
  for (const Interface& interface : interfaces) {
    const GatewayObject use = useOf(interface, snapshot.gateway);
    if (use.role == Role::none) continue;
    snapshot.interfaces.push_back({interface, use, addressesOf(interface.id, addresses)});
  }
  return snapshot;
}

}  // namespace lumenctl
