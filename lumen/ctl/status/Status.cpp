#include "lumen/ctl/status/Status.h"

#include <algorithm>
#include <map>
#include <optional>

#include "lumen/ctl/router/Ports.h"
#include "lumen/ctl/text/Errors.h"
#include "lumen/ctl/text/Text.h"
#include "platform/wire/Broker.h"

namespace lumenctl {

namespace {

struct Gateway {
  std::string state;
  std::string detail = {};
  uint32_t process = 0;
  /// What it uses, by interface id; none when it did not say.
  std::optional<std::map<uint32_t, GatewayObject>> objects = {};
};

Gateway notRunning(const Service& service) {
  if (service.state == lm::broker::state::starting) return {"starting", {}};
  if (service.state == lm::broker::state::waiting) {
    return {"crashed", "starts again in " + duration((service.nextStart + 999) / 1000)};
  }
  return {"off", {}};
}

/// A request would start a gateway that is switched off, so it is asked only while it runs.
Gateway readGateway(Router& router) {
  const std::vector<Service> services = router.services();
  const auto it = std::find_if(services.begin(), services.end(), [](const Service& service) {
    return service.number == lm::service::gateway;
  });
  if (it == services.end()) return {"not installed", {}};
  if (it->state != lm::broker::state::running) return notRunning(*it);
  try {
    Gateway gateway;
    gateway.state = onOrOff(router.settings().enabled);
    gateway.detail = "process " + std::to_string(it->pid);
    gateway.process = it->pid;
    gateway.objects.emplace();
    for (const GatewayObject& object : router.gatewayObjects()) {
      gateway.objects->emplace(object.interfaceId, object);
    }
    return gateway;
  } catch (const Refused& refused) {
    return {"not answering", refused.what()};
  }
}

GatewayObject useOf(const Interface& interface, const Gateway& gateway) {
  GatewayObject use;
  if (!gateway.objects) {
    use.role = interface.role;
  } else if (const auto it = gateway.objects->find(interface.id); it != gateway.objects->end()) {
    use = it->second;
  }
  return use;
}

}  // namespace

std::string Status::Use::role() const {
  return roleName(object.role) + (object.disabled ? ", not used" : "");
}

bool Status::Use::shouldServe() const {
  return object.role == Role::internal && !object.disabled && interface.running &&
         !addresses.empty();
}

Status::Status(Router& router, Machine& machine) {
  const std::vector<Address> addresses = router.addresses();
  rules = router.rules();
  const std::vector<Interface> all = router.interfaces();
  // Asked after these, and looked at after its answer, the gateway has heard of them.
  const Gateway answer = readGateway(router);
  gateway = answer.state;
  detail = answer.detail;
  for (const Interface& interface : all) {
    const GatewayObject object = useOf(interface, answer);
    if (object.role == Role::none) continue;
    interfaces.push_back({interface, object, addressesOf(interface.id, addresses)});
  }
  if (gateway == onOrOff(true)) lookFor(GatewaySockets(machine, answer.process));
}

void Status::lookFor(const GatewaySockets& sockets) {
  bool reachable = false;
  std::vector<std::string> silent;
  for (const Use& use : interfaces) {
    if (!use.shouldServe()) continue;
    if (sockets.missingOn(use.interface.index).empty()) {
      reachable = true;
    } else {
      silent.push_back(use.interface.name);
    }
  }
  if (!reachable) {
    gateway = "not reachable";
    detail += "; lumenctl upnp check tells why";
  } else if (!silent.empty()) {
    detail += "; not reachable on " + joined(silent) + ", lumenctl upnp check tells why";
  }
}

Json Status::json() const {
  Json uses = Json::array();
  for (const Use& use : interfaces) {
    uses.push_back({{"name", use.interface.name},
                    {"role", roleName(use.object.role)},
                    {"used", !use.object.disabled},
                    {"state", use.interface.state()},
                    {"addresses", use.addresses}});
  }
  return {{"gateway", gateway}, {"interfaces", uses}, {"ports", portsAsJson(rules)}};
}

}  // namespace lumenctl
