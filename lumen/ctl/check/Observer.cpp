#include "lumen/ctl/check/Observer.h"

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>

#include "lumen/ctl/check/GatewaySockets.h"
#include "lumen/ctl/machine/LogHint.h"
#include "lumen/ctl/machine/Machine.h"
#include "lumen/ctl/machine/RouteTable.h"
#include "lumen/ctl/machine/SocketTable.h"
#include "lumen/ctl/text/Errors.h"
#include "lumen/services/supervisor/ServiceFile.h"
#include "platform/wire/Broker.h"

namespace lumenctl {

namespace {

/// None when the kernel has no such setting.
std::optional<bool> readSwitch(Machine& machine, const std::string& setting) {
  const std::optional<std::string> text = machine.read("/proc/sys/net/" + setting);
  if (!text) return std::nullopt;
  return !text->starts_with('0');
}

using Objects = std::map<uint32_t, GatewayObject>;  // by interface id

/// The gateway's state, and when it answers what it uses. A request would start one that is
/// switched off, so it is asked only while it runs.
GatewayState readGateway(Router& router, std::optional<Objects>& objects) {
  using Kind = GatewayState::Kind;
  const std::vector<Service> services = router.services();
  const auto it = std::find_if(services.begin(), services.end(), [](const Service& service) {
    return service.number == lm::service::gateway;
  });
  if (it == services.end()) return {Kind::notInstalled, {}, 0, {}};
  if (it->state == lm::broker::state::waiting) return {Kind::crashed, {}, 0, {}};
  if (it->state == lm::broker::state::stopped || it->state == lm::broker::state::leaving) {
    return {Kind::off, {}, 0, {}};
  }
  try {
    const Kind kind = router.settings().enabled ? Kind::on : Kind::off;
    Objects found;
    for (const GatewayObject& object : router.gatewayObjects()) {
      found.emplace(object.interfaceId, object);
    }
    objects = std::move(found);
    return {kind, {}, it->pid, {}};
  } catch (const Refused& refused) {
    return {Kind::silent, refused.what(), it->pid, {}};
  }
}

/// The file that lumend should have found when it started. With `root` it is not the system's.
GatewayFile readGatewayFile(Machine& machine, const std::string& root) {
  // A package binds the first over the second for lumend only.
  std::vector<std::string> folders = {"/etc/lumen", "/lumen/etc"};
  if (!root.empty()) folders = {root + "/etc"};
  GatewayFile file;
  file.packaged = root.empty() && machine.read("/var/lib/dpkg/info/palinode-igd.list");
  if (!file.packaged) folders.erase(folders.begin(), folders.end() - 1);
  file.path = folders.front() + "/services/upnp.ini";
  const std::optional<std::string> text = machine.read(file.path);
  const int failure = text ? 0 : errno;
  file.present = failure != ENOENT;
  if (text) {
    const auto definition = lumen::parseServiceFile(*text, lumen::SystemUsers());
    if (!definition) {
      file.error = definition.why();
    } else if (definition->number != lm::service::gateway) {
      file.error = "number is not " + std::to_string(lm::service::gateway);
    }
  } else {
    file.error = std::strerror(failure);
  }
  return file;
}

/// How the gateway uses the interface; when it did not say, as what the platform keeps it.
Role roleOf(const Interface& interface, const std::optional<Objects>& objects) {
  if (!objects) return interface.role;
  const auto it = objects->find(interface.id);
  return it == objects->end() || it->second.disabled ? Role::none : it->second.role;
}

void readPlatform(Session& session, Observation& seen) {
  Router& router = session.router();
  Machine& machine = session.machine();
  seen.rules = router.rules();
  seen.policy = router.policy();
  const std::vector<ConnectedNetwork> networks =
      connectedNetworks(machine.read(routeTablePath).value_or(""));
  const std::vector<Address> addresses = router.addresses();
  const std::vector<Interface> interfaces = router.interfaces();
  // Asked after these, and looked at after its answer, the gateway has heard of them.
  std::optional<Objects> objects;
  seen.gateway = readGateway(router, objects);
  if (seen.gateway.kind == GatewayState::Kind::notInstalled) {
    seen.gateway.file = readGatewayFile(machine, session.root);
  }
  const GatewaySockets sockets(machine, seen.gateway.process);
  for (const Interface& interface : interfaces) {
    UsedInterface used;
    used.role = roleOf(interface, objects);
    if (used.role == Role::none) continue;
    used.name = interface.name;
    used.state = interface.state();
    for (const Address& address : addresses) {
      if (address.interfaceId == interface.id) used.addresses.push_back(address.address);
    }
    for (const ConnectedNetwork& network : networks) {
      if (network.interface == interface.name) used.networks.push_back(network);
    }
    const bool present = interface.index != 0;
    used.bridge = present && machine.isBridge(interface.name);
    used.multicast = !present || machine.carriesMulticast(interface.name);
    const bool served = seen.gateway.kind == GatewayState::Kind::on && interface.running &&
                        used.role == Role::internal && !used.addresses.empty();
    if (served) used.silentPorts = sockets.missingOn(interface.index);
    used.forwards = readSwitch(machine, "ipv4/conf/" + interface.name + "/forwarding");
    seen.interfaces.push_back(std::move(used));
  }
}

std::vector<PortUser> readPortUsers(Machine& machine, uint32_t gateway) {
  struct Table {
    const char* path;
    uint32_t protocol;
    uint32_t port;
  };
  // The ports of SSDP and of the gateway's HTTP server.
  constexpr std::array<Table, 4> tables = {{{"/proc/net/udp", IPPROTO_UDP, 1900},
                                            {"/proc/net/udp6", IPPROTO_UDP, 1900},
                                            {"/proc/net/tcp", IPPROTO_TCP, 2828},
                                            {"/proc/net/tcp6", IPPROTO_TCP, 2828}}};
  const std::optional<uint32_t> gatewaysUser = userOf(machine, gateway);
  std::vector<PortUser> users;
  for (const Table& table : tables) {
    for (const BoundSocket& socket : boundSockets(machine.read(table.path).value_or(""))) {
      if (socket.port != table.port) continue;
      const Process owner = machine.ownerOf(socket.inode);
      const bool own = owner.id == 0 ? socket.user == gatewaysUser : owner.id == gateway;
      const PortUser user{table.port, table.protocol, owner.id, owner.name};
      if (own || std::find(users.begin(), users.end(), user) != users.end()) continue;
      users.push_back(user);
    }
  }
  return users;
}

}  // namespace

Observation observe(Session& session) {
  Machine& machine = session.machine();
  Observation seen;
  try {
    (void)session.router();
  } catch (const Refused& refused) {
    seen.unreachable = refused.what();
    seen.logHint = logHint(machine, session.root);
    seen.systemd = session.root.empty() && hasSystemd(machine);
  }
  try {
    if (seen.unreachable.empty()) readPlatform(session, seen);
  } catch (const Refused& refused) {
    seen.refused = refused.what();
  }
  seen.kernel = machine.read("/proc/sys/kernel/osrelease").value_or("");
  while (seen.kernel.ends_with('\n')) seen.kernel.pop_back();
  seen.forwards = readSwitch(machine, "ipv4/ip_forward");
  seen.defaultRoute = !defaultRoutes(machine.read(routeTablePath).value_or("")).empty();
  seen.bridgedIsFiltered = readSwitch(machine, "bridge/bridge-nf-call-iptables").value_or(false);
  seen.chains = machine.forwardChains();
  // Without an answer the gateway could not be told from other programs; without lumend there is
  // none.
  if (seen.refused.empty()) seen.portUsers = readPortUsers(machine, seen.gateway.process);
  return seen;
}

}  // namespace lumenctl
