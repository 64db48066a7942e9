#include <CLI/App.hpp>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/text/Table.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

void list(Session& session) {
  Json result = Json::array();
  Table table({">NUMBER", "NAME", "STATE", ">PROCESS", ">MEMORY", ">RESTARTS", "STARTS AGAIN"});
  for (const Service& service : session.router().services()) {
    result.push_back({{"number", service.number},
                      {"name", service.name},
                      {"state", wordFor(service.state).text},
                      {"process", service.pid},
                      {"program", service.program},
                      {"resident_memory_bytes",
                       service.residentMemory == 0 ? Json() : Json(service.residentMemory)},
                      {"restarts", service.restarts},
                      {"starts_in_ms", service.nextStart.count()}});
    table.add({std::to_string(service.number), service.name, wordFor(service.state),
               service.pid == 0 ? "" : std::to_string(service.pid),
               service.residentMemory == 0 ? "" : amount(service.residentMemory),
               std::to_string(service.restarts),
               service.nextStart.count() == 0
                   ? ""
                   : "in " + duration(std::chrono::ceil<std::chrono::seconds>(service.nextStart))});
  }
  if (session.json) {
    session.print(result);
  } else if (table.empty()) {
    session.out() << "No service is installed.\n";
  } else {
    session.print(table);
  }
}

}  // namespace

void addServiceCommands(CLI::App& app, Session& session) {
  CLI::App* group = app.add_subcommand("service", "the programs that the platform starts");
  runWhenBare(*group, [&session] { list(session); });
  addExamples(*group, {{"service list", "show them"}});
  CLI::App* listing = group->add_subcommand("list", "show them");
  addExamples(*listing, {{"service list", "which of them run, and how often they crashed"}});
  listing->callback([&session] { list(session); });
}

}  // namespace lumenctl
