#include <CLI/App.hpp>
#include <memory>
#include <optional>
#include <ostream>
#include <vector>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/router/PortEvent.h"
#include "lumen/ctl/text/Errors.h"

namespace lumenctl {

namespace {

Json asJson(Session& session, const PortEvent& event) {
  return {{"id", event.id},
          {"time", static_cast<double>(event.time.time_since_epoch().count()) / 1000},
          {"event", event.name()},
          {"port", event.external.port},
          {"protocol", event.protocolName()},
          {"address", event.externalText()},
          {"client", event.host.empty() ? event.client.address.text() : event.host},
          {"client_port", event.host.empty() ? event.client.port : event.external.port},
          {"who", event.owner},
          {"user", session.machine().userName(event.user)},
          {"reason", event.reason}};
}

/// As lines while they come, since the widths of a table would need them all.
void printLine(Session& session, const PortEvent& event) {
  if (session.json) {
    session.printLine(asJson(session, event));
  } else {
    session.out() << event.line(session.machine().userName(event.user)) << '\n' << std::flush;
  }
  if (!session.out()) throw Refused("standard output cannot be written");
}

void show(Session& session) {
  const std::vector<PortEvent> events = session.router().portEvents();
  if (session.json) {
    Json all = Json::array();
    for (const PortEvent& event : events) all.push_back(asJson(session, event));
    session.print(all);
  } else if (events.empty()) {
    session.out() << "Nothing has happened to ports since lumend started.\n";
  } else {
    session.out() << PortEvent::headings() << '\n';
    for (const PortEvent& event : events) printLine(session, event);
  }
}

void follow(Session& session) {
  Router& router = session.router();
  router.followPortEvents();
  if (!session.json) session.out() << PortEvent::headings() << std::endl;
  uint32_t last = 0;
  for (const PortEvent& event : router.portEvents()) {
    printLine(session, event);
    last = event.id;
  }
  // What came while the list was read may be in it.
  bool caughtUp = false;
  while (const std::optional<std::vector<PortEvent>> news = router.nextPortEvents()) {
    for (const PortEvent& event : *news) {
      caughtUp = caughtUp || event.id > last;
      if (caughtUp) printLine(session, event);
    }
  }
}

}  // namespace

void addPortLogCommand(CLI::App& nat, Session& session) {
  CLI::App* command = nat.add_subcommand(
      "log",
      "ports that were opened, changed, closed or refused since lumend started: the newest "
      "10,000, the oldest first");
  addExamples(*command, {{"nat log", "who had which port opened or closed, and when"},
                         {"nat log --follow", "and then each as it happens, until Ctrl-C"},
                         {"nat log --json --follow", "for a program, an object on each line"}});
  auto follows = std::make_shared<bool>(false);
  command->add_flag("--follow", *follows, "go on with each event as it happens, until Ctrl-C");
  command->callback([&session, follows] { *follows ? follow(session) : show(session); });
}

}  // namespace lumenctl
