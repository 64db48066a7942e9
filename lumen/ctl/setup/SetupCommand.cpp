#include <CLI/App.hpp>
#include <algorithm>
#include <memory>
#include <optional>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/commands/Arguments.h"
#include "lumen/ctl/machine/Machine.h"
#include "lumen/ctl/machine/SocketTable.h"
#include "lumen/ctl/setup/SetupProposal.h"
#include "lumen/ctl/setup/UpnpSetup.h"
#include "lumen/ctl/status/Status.h"
#include "lumen/ctl/text/Errors.h"
#include "lumen/ctl/text/Table.h"
#include "lumen/ctl/text/Text.h"
#include "platform/wire/Pcp.h"
#include "platform/wire/Web.h"

namespace lumenctl {

namespace {

struct Arguments {
  std::vector<std::string> internal;  ///< empty: to be proposed
  std::string external;               ///< the same
  bool yes = false;                   ///< do not ask
  bool allowMissing = false;          ///< interfaces may be named that do not exist now
  bool allowDisconnect = false;       ///< programs on the LAN may take the external one down
};

std::vector<std::string> namesIn(const Arguments& arguments) {
  std::vector<std::string> names = arguments.internal;
  if (!arguments.external.empty()) names.push_back(arguments.external);
  return names;
}

std::vector<Candidate> readCandidates(Session& session, const std::vector<Interface>& interfaces) {
  const std::vector<Address> addresses = session.router().addresses();
  std::vector<Candidate> candidates;
  for (const Interface& interface : interfaces) {
    Candidate candidate;
    candidate.name = interface.name;
    candidate.ethernet = interface.hardwareType == lm::interfaces::ethernet;
    candidate.bridge = session.machine().isBridge(interface.name);
    candidate.addresses = addressesOf(interface.id, addresses);
    candidates.push_back(std::move(candidate));
  }
  return candidates;
}

/// What would set the router up like that without a question.
std::string commandLine(const Session& session, const Arguments& arguments,
                        const Proposal& proposal) {
  std::string line = "lumenctl";
  if (!session.root.empty()) line += " --root " + session.root;
  line += " upnp setup --internal";
  for (const std::string& name : proposal.internalNames()) line += " " + name;
  line += " --external " + proposal.external.name;
  if (arguments.allowMissing) line += " --allow-missing";
  if (arguments.allowDisconnect) line += " --allow-disconnect";
  return line;
}

void show(Session& session, const Proposal& proposal, const std::vector<Interface>& interfaces) {
  std::ostream& out = session.out();
  out << "As this router's routes and addresses look:\n\n";
  Table table({"INTERFACE", "ROLE", "WHY"});
  std::vector<std::string> named = {proposal.external.name};
  for (const Proposal::Part& part : proposal.internal) {
    table.add({part.name, roleName(Role::internal), part.reason});
    named.push_back(part.name);
  }
  table.add({proposal.external.name, roleName(Role::external), proposal.external.reason});
  for (const Interface& interface : interfaces) {
    if (interface.role == Role::none) continue;
    if (std::find(named.begin(), named.end(), interface.name) != named.end()) continue;
    table.add({interface.name, "none", roleName(interface.role) + " until now"});
  }
  session.print(table);
  out << '\n';
}

bool agrees(Session& session) {
  session.out() << "Set the gateway up like that? [y/N] " << std::flush;
  const std::optional<std::string> answer = session.machine().typedLine();
  if (!answer) session.out() << '\n';
  return answer == "y" || answer == "Y" || answer == "yes";
}

/// Puts what is proposed for the missing roles into `arguments`; throws Refused when the user
/// declines it or cannot be asked.
void complete(Session& session, Arguments& arguments) {
  const std::vector<Interface> interfaces = session.router().interfaces();
  if (!arguments.allowMissing) requirePresent(namesIn(arguments), interfaces);
  const std::string routes = session.machine().read(routeTablePath).value_or("");
  const lumen::Result<Proposal> proposed =
      proposeRoles(readCandidates(session, interfaces), defaultRoutes(routes), arguments.internal,
                   arguments.external);
  if (!proposed) throw Refused(proposed.why());
  const Proposal& proposal = *proposed;
  if (!arguments.yes && (session.json || !session.machine().hasTerminal())) {
    throw Refused(
        std::string("roles are missing, and ") +
        (session.json ? "with --json" : "without a terminal") +
        " there is no way to ask. The proposal: " + commandLine(session, arguments, proposal));
  }
  if (!session.json) show(session, proposal, interfaces);
  if (!arguments.yes && !agrees(session)) throw Refused("nothing was changed");
  arguments.internal = proposal.internalNames();
  arguments.external = proposal.external.name;
}

/// Offers the status page where it is installed and off.
void offerWebPage(Session& session) {
  if (session.json || !session.machine().hasTerminal()) return;
  const std::vector<Service> services = session.router().services();
  const bool installed = std::any_of(services.begin(), services.end(), [](const Service& service) {
    return service.number == lm::service::web;
  });
  if (!installed || session.router().webPage().enabled) return;
  const std::vector<BoundSocket> sockets =
      boundSockets(session.machine().read("/proc/net/tcp").value_or("") +
                   session.machine().read("/proc/net/tcp6").value_or(""));
  const bool taken = std::any_of(sockets.begin(), sockets.end(), [](const BoundSocket& socket) {
    return socket.port == lm::web::defaultPort;
  });
  session.out() << "Show a status page to browsers at home? "
                << (taken ? "Port 80 is taken by another program; it can have another port later. "
                            "[y/N] "
                          : "[Y/n] ")
                << std::flush;
  const std::optional<std::string> answer = session.machine().typedLine();
  if (!answer) session.out() << '\n';
  const bool yes = answer && (*answer == "y" || *answer == "Y" || *answer == "yes");
  if (!yes && !(answer && answer->empty() && !taken)) return;
  WebPageChange change;
  change.enabled = true;
  session.router().changeWebPage(change);
  session.done("status page: " + webPageText(session.router().webPage()));
}

/// Offers NAT-PMP and PCP where they are installed and off.
void offerPcp(Session& session) {
  if (session.json || !session.machine().hasTerminal()) return;
  const std::vector<Service> services = session.router().services();
  const bool installed = std::any_of(services.begin(), services.end(), [](const Service& service) {
    return service.number == lm::service::pcp;
  });
  if (!installed || session.router().pcpServer().enabled) return;
  session.out() << "Let programs that ask by NAT-PMP or PCP open ports, too? [Y/n] " << std::flush;
  const std::optional<std::string> answer = session.machine().typedLine();
  if (!answer) session.out() << '\n';
  if (!answer || !(answer->empty() || *answer == "y" || *answer == "Y" || *answer == "yes")) return;
  PcpServerChange change;
  change.enabled = true;
  session.router().changePcpServer(change);
  session.done("NAT-PMP and PCP: switched on");
}

}  // namespace

void addSetupCommand(CLI::App& upnp, Session& session) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App* setup = upnp.add_subcommand(
      "setup", "make this router an Internet gateway; roles that are not given are proposed first");
  addExamples(*setup, {{"upnp setup", "propose the roles, ask, and do it"},
                       {"upnp setup --internal br-lan --external wan0", "one network at home"},
                       {"upnp setup --internal br-lan br-guest --external ppp0", "two of them"},
                       {"upnp setup --external ppp0 --yes", "accept the proposal for the rest"},
                       {"upnp setup --external ppp0 --allow-missing", "before the first dial-up"}});
  setup->add_option("--internal", arguments->internal, "interfaces to the hosts at home")
      ->check(interfaceName())
      ->type_name("IF...");
  setup->add_option("--external", arguments->external, "interface to the Internet")
      ->check(interfaceName())
      ->type_name("IF");
  setup->add_flag("--yes", arguments->yes, "accept the proposal without asking");
  setup->add_flag("--allow-missing", arguments->allowMissing,
                  "accept an interface that does not exist yet");
  setup->add_flag("--allow-disconnect", arguments->allowDisconnect,
                  "let programs on the LAN take the external interface down and up; a new gateway "
                  "does not");
  setup->callback([&session, arguments] {
    session.changes = true;
    const bool asks = arguments->internal.empty() || arguments->external.empty();
    if (asks) complete(session, *arguments);
    setUpGateway(session, arguments->internal, arguments->external,
                 arguments->allowMissing ? Missing::allowed : Missing::refused,
                 arguments->allowDisconnect ? Disconnect::allowed : Disconnect::asBefore);
    if (asks && !arguments->yes) {
      offerPcp(session);
      offerWebPage(session);
    }
  });
}

}  // namespace lumenctl
