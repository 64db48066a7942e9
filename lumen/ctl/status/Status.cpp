#include "lumen/ctl/status/Status.h"

#include <chrono>

#include "lumen/ctl/status/StatusJson.h"
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
  pinholes = std::move(snapshot.pinholes);
  webPage = std::move(snapshot.webPage);
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
  return Json::parse(statusJson(gateway, interfaces, rules, refusals, pinholes));
}

std::string refusalText(const PortEvent& refusal) {
  return "Refused " + localTime(std::chrono::floor<std::chrono::seconds>(refusal.time)) + " to " +
         refusal.client.text() + ": " + printable(refusal.reason);
}

std::string webPageText(const WebPage& page) {
  std::string text = joined(page.urls());
  if (!page.problem.empty()) text += (text.empty() ? "" : "; ") + page.problem;
  return text.empty() ? "no internal interface has an address" : text;
}

std::string roleText(const UsedInterface& interface) {
  return roleName(interface.use.role) + (interface.use.disabled ? ", not used" : "");
}

}  // namespace lumenctl
