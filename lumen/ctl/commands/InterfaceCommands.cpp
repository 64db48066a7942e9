#include <CLI/App.hpp>
#include <memory>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/commands/Arguments.h"
#include "lumen/ctl/text/Table.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

void list(Session& session) {
  const std::vector<Address> addresses = session.router().addresses();
  Json result = Json::array();
  Table table({"NAME", "ROLE", "STATE", "ADDRESS", ">RECEIVED", ">SENT"});
  for (const Interface& interface : session.router().interfaces()) {
    const Counters counters = session.router().counters(interface.id);
    const std::vector<std::string> own = textsOf(addressesOf(interface.id, addresses));
    result.push_back({{"id", interface.id},
                      {"name", interface.name},
                      {"role", roleName(interface.role)},
                      {"state", wordFor(interface.state()).text},
                      {"addresses", own},
                      {"bytes_received", counters.bytesReceived},
                      {"bytes_sent", counters.bytesSent},
                      {"packets_received", counters.packetsReceived},
                      {"packets_sent", counters.packetsSent}});
    table.add({interface.name, roleName(interface.role), wordFor(interface.state()), joined(own),
               amount(counters.bytesReceived), amount(counters.bytesSent)});
  }
  if (session.json) {
    session.print(result);
  } else {
    session.print(table);
  }
}

/// The gateway's object goes first: it would name an interface that has no id any more.
void forget(Session& session, const std::string& name) {
  Router& router = session.router();
  const Interface interface = router.interfaceNamed(name);
  for (const GatewayObject& object : router.gatewayObjects()) {
    if (object.interfaceId != interface.id) continue;
    router.removeGatewayObject(object.id);
    session.done(name + ": no longer used by the gateway");
  }
  router.forget(interface.id);
  session.done(name + ": forgotten");
}

}  // namespace

void addInterfaceCommands(CLI::App& app, Session& session) {
  CLI::App* group = app.add_subcommand("interface", "the router's network interfaces");
  runWhenBare(*group, [&session] { list(session); });
  addExamples(*group, {{"interface list", "show them"},
                       {"interface forget wan1", "wan1 is gone for good"}});
  CLI::App* listing = group->add_subcommand("list", "show them");
  addExamples(*listing, {{"interface list", "with their addresses and what they have carried"}});
  listing->callback([&session] { list(session); });

  CLI::App* forgetting = group->add_subcommand(
      "forget", "stop keeping an interface's name and role, and stop the gateway from using it");
  addExamples(*forgetting, {{"interface forget wan1", "wan1 is gone for good"}});
  auto name = std::make_shared<std::string>();
  forgetting->add_option("interface", *name, "its name")
      ->required()
      ->check(interfaceName())
      ->type_name("IF");
  forgetting->callback([&session, name] {
    session.changes = true;
    forget(session, *name);
  });
}

}  // namespace lumenctl
