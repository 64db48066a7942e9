#include "lumen/ctl/check/Observer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "lumen/ctl/check/GatewaySockets.h"
#include "lumen/ctl/machine/LogHint.h"
#include "lumen/ctl/machine/Machine.h"
#include "lumen/ctl/machine/RouteTable.h"
#include "lumen/ctl/machine/SocketTable.h"
#include "lumen/ctl/text/Errors.h"
#include "lumen/services/supervisor/ServiceFile.h"
#include "platform/Keys.h"
#include "platform/wire/Pcp.h"

namespace lumenctl {

namespace {

/// None when the kernel has no such setting.
std::optional<bool> readSwitch(Machine& machine, const std::string& setting) {
  const std::optional<std::string> text = machine.read("/proc/sys/net/" + setting);
  if (!text) return std::nullopt;
  return !text->starts_with('0');
}

/// The users of a machine where the installation has created the gateway's.
class InstalledUsers : public lumen::UserDatabase {
 public:
  [[nodiscard]] std::optional<User> user(const std::string& name) const override {
    if (name == "palinode") return User{1, 1};
    return system_.user(name);
  }
  [[nodiscard]] std::optional<gid_t> group(const std::string& name) const override {
    return system_.group(name);
  }

 private:
  lumen::SystemUsers system_;
};

/// What lumend starts the gateway by, or what keeps it from that.
lumen::Result<lumen::ServiceDefinition> checkGatewayFile(const std::string& text,
                                                         const lumen::UserDatabase& users) {
  auto definition = lumen::parseServiceFile(text, users);
  if (!definition || definition->number == lm::service::gateway) return definition;
  return lumen::Failure{"number is not " + std::to_string(lm::service::gateway)};
}

/// The file that lumend should have found when it started. With `root` it is not the system's.
GatewayFile readGatewayFile(Machine& machine, const std::string& root) {
  // A package bind-mounts the first at the second, for lumend only.
  std::vector<std::string> folders = {"/etc/lumen", "/lumen/etc"};
  if (!root.empty()) folders = {root + "/etc"};
  GatewayFile file;
  file.packaged = root.empty() && machine.read("/var/lib/dpkg/info/palinode-igd.list");
  if (!file.packaged) folders.erase(folders.begin(), folders.end() - 1);
  file.path = folders.front() + "/services/upnp.ini";
  const std::optional<std::string> text = machine.read(file.path);
  if (!text) {
    file.state = errno == ENOENT ? GatewayFile::State::missing : GatewayFile::State::wrong;
    file.error = std::strerror(errno);
  } else if (const auto checked = checkGatewayFile(*text, lumen::SystemUsers()); checked) {
    file.state = checked->network == lumen::NetworkGrant::internal ? GatewayFile::State::right
                                                                   : GatewayFile::State::fenced;
    file.opensPorts = checked->ports.has_value();
  } else if (checkGatewayFile(*text, InstalledUsers())) {
    file.state = GatewayFile::State::userMissing;
  } else {
    file.state = GatewayFile::State::wrong;
    file.error = checked.why();
  }
  return file;
}

std::optional<PcpReport> readPcp(Router& router) {
  const std::vector<Service> services = router.services();
  const auto it = std::find_if(services.begin(), services.end(), [](const Service& service) {
    return service.number == lm::service::pcp;
  });
  // A request would start one that is switched off.
  if (it == services.end() || it->state == ServiceState::stopped ||
      it->state == ServiceState::leaving) {
    return std::nullopt;
  }
  PcpReport report;
  report.state = it->state;
  report.pinholes = router.pinholeSettings();
  if (it->state != ServiceState::running) return report;
  try {
    report.server = router.pcpServer();
    if (!report.server->enabled) return std::nullopt;
  } catch (const Refused&) {  // the report says so
  }
  return report;
}

void readPlatform(Session& session, Observation& seen) {
  Router& router = session.router();
  Machine& machine = session.machine();
  Snapshot snapshot = readSnapshot(router, Starting::isAwaited);
  seen.policy = router.policy();
  seen.rules = std::move(snapshot.rules);
  seen.webPage = std::move(snapshot.webPage);
  seen.pcp = readPcp(router);
  seen.gateway = std::move(snapshot.gateway);
  seen.gatewayFile = readGatewayFile(machine, session.root);
  const std::vector<ConnectedNetwork> networks =
      connectedNetworks(machine.read(routeTablePath).value_or(""));
  const GatewaySockets sockets(machine, seen.gateway.process);
  for (UsedInterface& read : snapshot.interfaces) {
    if (read.use.disabled) continue;
    const Interface& interface = read.interface;
    CheckedInterface used;
    used.name = interface.name;
    used.role = read.use.role;
    used.state = interface.state();
    used.addresses = std::move(read.addresses);
    for (const ConnectedNetwork& network : networks) {
      if (network.interface == interface.name) used.networks.push_back(network);
    }
    const bool present = !interface.isAway();
    used.bridge = present && machine.isBridge(interface.name);
    used.multicast = !present || machine.carriesMulticast(interface.name);
    const bool served = seen.gateway.state == GatewayState::on && interface.running &&
                        used.role == Role::internal && !used.addresses.empty();
    if (served) used.silentPorts = sockets.missingOn(interface.index);
    used.forwards = readSwitch(machine, "ipv4/conf/" + interface.name + "/forwarding");
    seen.interfaces.push_back(std::move(used));
  }
}

std::vector<PortUser> readPortUsers(Machine& machine, uint32_t gateway) {
  const std::optional<uint32_t> gatewaysUser = userOf(machine, gateway);
  std::vector<PortUser> users;
  for (const GatewayPort& needed : gatewayPorts) {
    const std::string table =
        std::string("/proc/net/") + (needed.protocol == IPPROTO_TCP ? "tcp" : "udp");
    // The second is that of IPv6.
    for (const BoundSocket& socket :
         boundSockets(machine.read(table).value_or("") + machine.read(table + "6").value_or(""))) {
      if (socket.port != needed.port) continue;
      const Process owner = machine.ownerOf(socket.inode);
      const bool own = owner.id == 0 ? socket.user == gatewaysUser : owner.id == gateway;
      const PortUser user{needed.port, needed.protocol, owner.id, owner.name};
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
    seen.reached = lumen::Failure{refused.what()};
    seen.logHint = logHint(machine, session.root);
    seen.systemd = session.root.empty() && hasSystemd(machine);
  }
  try {
    if (seen.reached) readPlatform(session, seen);
  } catch (const Refused& refused) {
    seen.answered = lumen::Failure{refused.what()};
  }
  seen.kernel = machine.read("/proc/sys/kernel/osrelease").value_or("");
  while (seen.kernel.ends_with('\n')) seen.kernel.pop_back();
  seen.forwards = readSwitch(machine, "ipv4/ip_forward");
  seen.defaultRoute = !defaultRoutes(machine.read(routeTablePath).value_or("")).empty();
  seen.bridgedIsFiltered = readSwitch(machine, "bridge/bridge-nf-call-iptables").value_or(false);
  seen.chains = machine.forwardChains();
  // Without an answer the gateway could not be distinguished from other programs; without lumend
  // there is no gateway.
  if (seen.answered) seen.portUsers = readPortUsers(machine, seen.gateway.process);
  return seen;
}

}  // namespace lumenctl
