#include <CLI/App.hpp>
#include <algorithm>
#include <array>
#include <memory>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/commands/Arguments.h"
#include "lumen/ctl/router/SettingTable.h"
#include "lumen/ctl/text/Errors.h"
#include "lumen/ctl/text/Table.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

std::vector<std::string> settingNames() {
  std::vector<std::string> names;
  names.reserve(settingTable.size());
  for (const Setting& setting : settingTable) names.emplace_back(setting.name);
  return names;
}

void showSettings(Session& session) {
  const Settings settings = session.router().settings();
  if (session.json) {
    Json result;
    for (const Setting& setting : settingTable) result[setting.name] = settings.*setting.value;
    session.print(result);
    return;
  }
  Table table({"SETTING", "VALUE", "MEANING"});
  for (const Setting& setting : settingTable) {
    table.add({setting.name, onOrOff(settings.*setting.value), setting.meaning});
  }
  session.print(table);
}

/// The record that the gateway stores is the request as it was received: every write has all three
/// settings.
void setSettings(Session& session, const std::vector<std::string>& texts) {
  struct Change {
    const Setting* setting;
    bool value;
  };
  std::vector<Change> changes;
  for (const auto& [name, value] : parseAssignments(texts, settingNames())) {
    const auto* const setting =
        std::find_if(settingTable.begin(), settingTable.end(),
                     [&assigned = name](const Setting& s) { return assigned == s.name; });
    changes.push_back({setting, parseSwitch(name, value)});
  }
  Settings settings = session.router().settings();
  for (const Change& change : changes) settings.*change.setting->value = change.value;
  session.router().writeSettings(settings);
  for (const Change& change : changes) {
    session.done(std::string(change.setting->name) + ": " + onOrOff(change.value));
  }
}

void listInterfaces(Session& session) {
  const std::vector<Interface> interfaces = session.router().interfaces();
  Json result = Json::array();
  Table table({"INTERFACE", "ROLE", "USED", "STATE"});
  for (const GatewayObject& object : session.router().gatewayObjects()) {
    const auto it = std::find_if(interfaces.begin(), interfaces.end(),
                                 [&](const Interface& i) { return i.id == object.interfaceId; });
    const bool known = it != interfaces.end();
    const std::string name = known ? it->name : "interface " + std::to_string(object.interfaceId);
    const StateWord state = known ? wordFor(it->state()) : StateWord{"unknown", Colour::none};
    result.push_back({{"interface", name},
                      {"role", roleName(object.role)},
                      {"used", !object.disabled},
                      {"state", state.text}});
    table.add({name, roleName(object.role), yesOrNo(!object.disabled), state});
  }
  if (session.json) {
    session.print(result);
  } else if (table.empty()) {
    session.out() << "The gateway uses no interface.\n";
  } else {
    session.print(table);
  }
}

/// Throws Refused when the gateway does not use the interface.
GatewayObject objectOf(Session& session, const Interface& interface) {
  for (const GatewayObject& object : session.router().gatewayObjects()) {
    if (object.interfaceId == interface.id) return object;
  }
  throw Refused("the gateway does not use interface '" + interface.name + "'");
}

struct InterfaceArguments {
  std::string name;
  std::string role;  // empty: unchanged
  bool disable = false;
  bool enable = false;
};

void addInterface(Session& session, const InterfaceArguments& arguments) {
  GatewayObject object;
  object.role = parseRole(arguments.role);
  object.disabled = arguments.disable;
  // Kept first: a link that does not exist yet has no id otherwise.
  object.interfaceId = session.router().keep(arguments.name, object.role);
  session.router().addGatewayObject(object);
  session.done(arguments.name + ": used by the gateway as " + roleName(object.role) +
               (object.disabled ? ", but disabled" : ""));
}

void setInterface(Session& session, const InterfaceArguments& arguments) {
  if (arguments.role.empty() && !arguments.enable && !arguments.disable) {
    throw WrongUsage("nothing to set: give --role, --enable or --disable");
  }
  const Role role = arguments.role.empty() ? Role::none : parseRole(arguments.role);
  const Interface interface = session.router().interfaceNamed(arguments.name);
  GatewayObject object = objectOf(session, interface);
  if (role != Role::none) {
    object.role = role;
    if (interface.role != role) session.router().keep(interface.name, role);
  }
  if (arguments.enable || arguments.disable) object.disabled = arguments.disable;
  session.router().setGatewayObject(object);
  session.done(arguments.name + ": used by the gateway as " + roleName(object.role) +
               (object.disabled ? ", but disabled" : ""));
}

void removeInterface(Session& session, const std::string& name) {
  const Interface interface = session.router().interfaceNamed(name);
  session.router().removeGatewayObject(objectOf(session, interface).id);
  session.done(name + ": no longer used by the gateway");
}

void addSettings(CLI::App& upnp, Session& session) {
  CLI::App* settings = upnp.add_subcommand("settings", "show or set the gateway's settings");
  addExamples(*settings, {{"upnp settings", "show them"},
                          {"upnp settings set enabled=off", "switch the gateway off"}});
  runWhenBare(*settings, [&session] { showSettings(session); });
  CLI::App* show = settings->add_subcommand("show", "show them");
  addExamples(*show, {{"upnp settings show", "in a table"},
                      {"upnp settings show --json", "for a program"}});
  show->callback([&session] { showSettings(session); });

  CLI::App* set = settings->add_subcommand("set", "set some of them; the rest stays unchanged");
  addExamples(
      *set, {{"upnp settings set enabled=off", "switch the gateway off"},
             {"upnp settings set allow-disable-external=off show-dummy-rule=off", "two at once"}});
  auto assignments = std::make_shared<std::vector<std::string>>();
  set->add_option("settings", *assignments, describeSettings(settingNames()))
      ->required()
      ->type_name("NAME=on|off...");
  set->callback([&session, assignments] {
    session.changes = true;
    setSettings(session, *assignments);
  });
}

void addInterfaces(CLI::App& upnp, Session& session) {
  CLI::App* group = upnp.add_subcommand("interface", "the interfaces that the gateway uses");
  addExamples(*group, {{"upnp interface list", "show them"},
                       {"upnp interface add br-guest --role internal", "one more network at home"},
                       {"upnp interface remove br-guest", "stop using it"}});
  runWhenBare(*group, [&session] { listInterfaces(session); });
  CLI::App* listing = group->add_subcommand("list", "show them");
  addExamples(*listing, {{"upnp interface list", "with the role of each"}});
  listing->callback([&session] { listInterfaces(session); });

  auto arguments = std::make_shared<InterfaceArguments>();
  const auto command = [&](const std::string& name, const std::string& description, auto call) {
    CLI::App* app = group->add_subcommand(name, description);
    app->add_option("interface", arguments->name, "its name")
        ->required()
        ->check(interfaceName())
        ->type_name("IF");
    app->callback([&session, arguments, call] {
      session.changes = true;
      call(session, *arguments);
    });
    return app;
  };

  CLI::App* add = command("add", "let the gateway use an interface", addInterface);
  addExamples(*add, {{"upnp interface add br-guest --role internal", "one more network at home"},
                     {"upnp interface add wan1 --role external --disable", "for later"}});
  add->add_option("--role", arguments->role, "external or internal")->required()->type_name("ROLE");
  add->add_flag("--disable", arguments->disable, "configure it, but do not use it yet");

  CLI::App* set = command("set", "change how the gateway uses an interface", setInterface);
  addExamples(*set, {{"upnp interface set br-guest --disable", "leave it out for a while"},
                     {"upnp interface set wan1 --enable --role external", "use it, as external"}});
  set->add_option("--role", arguments->role, "external or internal")->type_name("ROLE");
  CLI::Option* enable = set->add_flag("--enable", arguments->enable, "use it");
  set->add_flag("--disable", arguments->disable, "do not use it")->excludes(enable);

  CLI::App* remove =
      command("remove", "let the gateway no longer use an interface; its name stays kept",
              [](Session& s, const InterfaceArguments& a) { removeInterface(s, a.name); });
  addExamples(*remove, {{"upnp interface remove br-guest", "its hosts see no gateway any more"}});
}

}  // namespace

void addUpnpCommands(CLI::App& app, Session& session) {
  CLI::App* upnp = app.add_subcommand("upnp", "the Internet gateway: set-up, settings, interfaces");
  addExamples(*upnp, {{"upnp setup", "become a gateway; it asks before it changes anything"},
                      {"upnp check", "what keeps it from working"},
                      {"upnp settings", "how it is set"},
                      {"upnp interface list", "what it uses"}});
  upnp->require_subcommand(1);
  addSetupCommand(*upnp, session);
  addCheckCommand(*upnp, session);
  addSettings(*upnp, session);
  addInterfaces(*upnp, session);
}

}  // namespace lumenctl
