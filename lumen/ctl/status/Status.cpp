#include "lumen/ctl/status/Status.h"

#include <chrono>

#include "lumen/ctl/router/Ports.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

std::string detailOf(const GatewayReport& gateway) {
  if (gateway.state == GatewayState::crashed) {
    return "starts again in " + duration(std::chrono::ceil<std::chrono::seconds>(gateway.startsIn));
  }
  if (!gateway.answer) return {};
  return gateway.answer->ok() ? "process " + std::to_string(gateway.process)
                              : gateway.answer->why();
}

/// Whether a gateway that is switched on has sockets there.
bool shouldServe(const UsedInterface& used) {
  return used.use.role == Role::internal && !used.use.disabled && used.interface.running &&
         !used.addresses.empty();
}

}  // namespace

Status::Status(Router& router, Machine& machine) {
  Snapshot snapshot = readSnapshot(router, Starting::isReported);
  gateway = snapshot.gateway.state;
  detail = detailOf(snapshot.gateway);
  interfaces = std::move(snapshot.interfaces);
  rules = std::move(snapshot.rules);
  refusals = router.refusalsOfOwnPorts();
  if (gateway == GatewayState::on) {
    findUnreachable(GatewaySockets(machine, snapshot.gateway.process));
  }
}

void Status::findUnreachable(const GatewaySockets& sockets) {
  bool reachable = false;
  std::vector<std::string> silent;
  for (const UsedInterface& used : interfaces) {
    if (!shouldServe(used)) continue;
    if (sockets.missingOn(used.interface.index).empty()) {
      reachable = true;
    } else {
      silent.push_back(used.interface.name);
    }
  }
  if (!reachable) {
    gateway = GatewayState::notReachable;
    detail += "; lumenctl upnp check shows why";
  } else if (!silent.empty()) {
    detail += "; not reachable on " + joined(silent) + ", lumenctl upnp check shows why";
  }
}

Json Status::json() const {
  Json uses = Json::array();
  for (const UsedInterface& used : interfaces) {
    uses.push_back({{"name", used.interface.name},
                    {"role", roleName(used.use.role)},
                    {"used", !used.use.disabled},
                    {"state", wordFor(used.interface.state()).text},
                    {"addresses", textsOf(used.addresses)}});
  }
  Json refused = Json::array();
  for (const PortEvent& refusal : refusals) {
    refused.push_back(
        {{"time", static_cast<double>(refusal.time.time_since_epoch().count()) / 1000},
         {"port", refusal.external.port},
         {"protocol", refusal.protocolName()},
         {"address", refusal.external.address.text()},
         {"client", refusal.client.address.text()},
         {"client_port", refusal.client.port},
         {"reason", refusal.reason}});
  }
  return {{"gateway", wordFor(gateway).text},
          {"interfaces", uses},
          {"ports", portsAsJson(rules)},
          {"refused_ports", refused}};
}

std::string refusalText(const PortEvent& refusal) {
  return "Refused " + localTime(std::chrono::floor<std::chrono::seconds>(refusal.time)) + " to " +
         refusal.client.text() + ": " + printable(refusal.reason);
}

std::string roleText(const UsedInterface& interface) {
  return roleName(interface.use.role) + (interface.use.disabled ? ", not used" : "");
}

}  // namespace lumenctl
