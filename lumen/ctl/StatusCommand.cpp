#include <CLI/App.hpp>
#include <algorithm>
#include <map>
#include <optional>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Errors.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/Ports.h"
#include "lumen/ctl/Table.h"
#include "lumen/ctl/Text.h"
#include "lumen/services/broker/BrokerKeys.h"

namespace lumenctl {

namespace {

struct Gateway {
  std::string state;   ///< a few words
  std::string detail;  ///< what else people want to know
  /// What it uses, by interface id; none when it did not say.
  std::optional<std::map<uint32_t, GatewayObject>> objects;
};

Gateway notRunning(const Service& service) {
  if (service.state == lumen::servicestate::starting) return {"starting", {}, {}};
  if (service.state == lumen::servicestate::waiting) {
    return {"crashed", "starts again in " + duration((service.nextStart + 999) / 1000), {}};
  }
  return {"off", {}, {}};
}

/// A request would start a gateway that is switched off, so it is asked only while it runs.
Gateway readGateway(Router& router) {
  const std::vector<Service> services = router.services();
  const auto it = std::find_if(services.begin(), services.end(), [](const Service& service) {
    return service.number == Router::gatewayService;
  });
  if (it == services.end()) return {"not installed", {}, {}};
  if (it->state != lumen::servicestate::running) return notRunning(*it);
  try {
    Gateway gateway;
    gateway.state = onOrOff(router.settings().enabled);
    gateway.detail = "process " + std::to_string(it->pid);
    gateway.objects.emplace();
    for (const GatewayObject& object : router.gatewayObjects()) {
      gateway.objects->emplace(object.interfaceId, object);
    }
    return gateway;
  } catch (const Refused& refused) {
    return {"not answering", refused.what(), {}};
  }
}

/// How the gateway uses the interface; when it did not say, what the platform keeps of it.
GatewayObject useOf(const Interface& interface, const Gateway& gateway) {
  GatewayObject use;
  if (!gateway.objects) {
    use.role = interface.role;
  } else if (const auto it = gateway.objects->find(interface.id); it != gateway.objects->end()) {
    use = it->second;
  }
  return use;
}

void show(Session& session) {
  Router& router = session.router();
  const Gateway gateway = readGateway(router);
  const std::vector<Address> addresses = router.addresses();
  const std::vector<NatRule> rules = router.rules();

  Json interfacesJson = Json::array();
  Table interfaces({"INTERFACE", "ROLE", "STATE", "ADDRESS"});
  for (const Interface& interface : router.interfaces()) {
    const GatewayObject use = useOf(interface, gateway);
    if (use.role == Role::none) continue;
    const std::vector<std::string> own = addressesOf(interface.id, addresses);
    interfacesJson.push_back({{"name", interface.name},
                              {"role", roleName(use.role)},
                              {"used", !use.disabled},
                              {"state", interface.state()},
                              {"addresses", own}});
    interfaces.add({interface.name, roleName(use.role) + (use.disabled ? ", not used" : ""),
                    Table::state(interface.state()), joined(own)});
  }

  if (session.json) {
    session.print({{"gateway", gateway.state},
                   {"interfaces", interfacesJson},
                   {"ports", portsAsJson(rules)}});
    return;
  }
  std::ostream& out = session.out();
  out << "Gateway: " << session.coloured(gateway.state, colourOfState(gateway.state));
  if (!gateway.detail.empty()) out << " (" << printable(gateway.detail) << ')';
  out << "\n\n";
  if (interfaces.empty()) {
    out << "No interface is set up: lumenctl upnp setup --internal IF --external IF\n";
  }
  session.print(interfaces);
  out << '\n';
  if (rules.empty()) out << "No port is open.\n";
  session.print(portsAsTable(rules));
}

}  // namespace

void addStatusCommand(CLI::App& app, Session& session) {
  CLI::App* command =
      app.add_subcommand("status", "whether the gateway works, its interfaces, the open ports");
  addExamples(*command, {{"status", "on one screen"}, {"status --json", "for a program"}});
  command->callback([&session] { show(session); });
}

}  // namespace lumenctl
