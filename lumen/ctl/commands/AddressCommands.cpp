#include <CLI/App.hpp>
#include <map>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/text/Table.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

constexpr StateWord inUse = {"in use", Colour::good};
constexpr StateWord notRunning = {"interface not running", Colour::none};

void list(Session& session) {
  std::map<uint32_t, std::string> names;
  for (const Interface& interface : session.router().interfaces()) {
    names[interface.id] = interface.name;
  }
  Json result = Json::array();
  Table table({"ADDRESS", "INTERFACE", "STATE"});
  for (const Address& address : session.router().addresses()) {
    const std::string& name = names[address.interfaceId];
    result.push_back(
        {{"address", address.address.text()}, {"interface", name}, {"in_use", !address.disabled}});
    table.add({address.address.text(), name, address.disabled ? notRunning : inUse});
  }
  if (session.json) {
    session.print(result);
  } else if (table.empty()) {
    session.out() << "The router has no address.\n";
  } else {
    session.print(table);
  }
}

}  // namespace

void addAddressCommands(CLI::App& app, Session& session) {
  CLI::App* group = app.add_subcommand("address", "the router's IPv4 addresses");
  runWhenBare(*group, [&session] { list(session); });
  addExamples(*group, {{"address list", "show them"}});
  CLI::App* listing = group->add_subcommand("list", "show them");
  addExamples(*listing, {{"address list", "which address is on which interface"}});
  listing->callback([&session] { list(session); });
}

}  // namespace lumenctl
