#include <CLI/App.hpp>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Errors.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/Table.h"
#include "lumen/ctl/Text.h"

namespace lumenctl {

namespace {

/// The name of the service with this number.
std::string nameOf(uint32_t number, const std::vector<Service>& services) {
  for (const Service& service : services) {
    if (service.number == number) return service.name;
  }
  return "service " + std::to_string(number);
}

void show(Session& session) {
  const std::vector<Change> history = session.router().history();
  const std::vector<Service> services = session.router().services();
  Json result = Json::array();
  Table table({">ID", "WHEN", "WHO", "CHANGE"});
  for (auto change = history.rbegin(); change != history.rend(); ++change) {
    const std::string who = nameOf(change->service, services);
    result.push_back(
        {{"id", change->id}, {"time", change->time}, {"service", who}, {"text", change->text}});
    table.add({std::to_string(change->id), localTime(change->time), who, change->text});
  }
  if (session.json) {
    session.print(result);
  } else if (table.empty()) {
    session.out() << "Nothing was changed.\n";
  } else {
    session.print(table);
  }
}

/// What takes a change back adds itself to the history, as a change like any other. The undone one
/// leaves it last: a refused undo stays the newest.
void undo(Session& session) {
  const std::vector<Change> history = session.router().history();
  if (history.empty()) throw Refused("there is nothing to undo");
  const Change& newest = history.back();
  session.router().undo(newest);
  session.done("undone: " + newest.text);
  session.router().removeFromHistory(newest.id);
}

}  // namespace

void addHistoryCommands(CLI::App& app, Session& session) {
  CLI::App* history =
      app.add_subcommand("history", "what was changed lately, the newest change first");
  addExamples(*history, {{"history", "who changed what, and when"}});
  history->callback([&session] { show(session); });

  CLI::App* undoing =
      app.add_subcommand("undo", "take the newest change back; once more brings it back");
  addExamples(*undoing, {{"undo", "take back what lumenctl history shows first"}});
  undoing->callback([&session] {
    session.changes = true;
    undo(session);
  });
}

}  // namespace lumenctl
