#include <CLI/App.hpp>
#include <memory>
#include <ostream>

#include "lumen/ctl/Arguments.h"
#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Errors.h"
#include "lumen/ctl/Ports.h"

namespace lumenctl {

namespace {

void list(Session& session) {
  const std::vector<NatRule> rules = session.router().rules();
  if (session.json) {
    session.print(portsAsJson(rules));
  } else if (rules.empty()) {
    session.out() << "No port is open.\n";
  } else {
    portsAsTable(rules).print(session.out());
  }
}

/// A router with two external addresses may have the port open on both.
void close(Session& session, const std::string& text) {
  const Port port = parsePort(text);
  bool found = false;
  for (const NatRule& rule : session.router().rules()) {
    if (rule.externalPort != port.number || rule.protocol != port.protocol) continue;
    found = true;
    if (rule.closed) continue;
    session.router().closeRule(rule.id);
    session.done(text + ": closed");
  }
  if (!found) throw Refused("port " + text + " is not open");
}

}  // namespace

void addNatCommands(CLI::App& app, Session& session) {
  CLI::App* group = app.add_subcommand("nat", "the ports that are open to the Internet");
  group->require_subcommand(1);
  group->add_subcommand("list", "show them")->callback([&session] { list(session); });

  CLI::App* closing = group->add_subcommand(
      "close", "close a port at once; it stays listed until the program that opened it lets go");
  auto port = std::make_shared<std::string>();
  closing->add_option("port", *port, "such as 8080/tcp")->required()->type_name("PORT/PROTOCOL");
  closing->callback([&session, port] {
    session.changes = true;
    close(session, *port);
  });
}

}  // namespace lumenctl
