#include <CLI/App.hpp>
#include <chrono>
#include <optional>
#include <ostream>
#include <utility>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/commands/Differences.h"
#include "lumen/ctl/text/Errors.h"
#include "lumen/ctl/text/Table.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

// The history of a gateway that hangs is shown without its present state.
constexpr std::chrono::seconds gatewayLimit{5};

/// The name of the service with this number.
std::string nameOf(uint32_t number, const std::vector<Service>& services) {
  for (const Service& service : services) {
    if (service.number == number) return service.name;
  }
  return "service " + std::to_string(number);
}

/// None when the gateway does not answer.
std::optional<GatewayConfiguration> presentConfiguration(Router& router) {
  router.waitForGateway(gatewayLimit);
  try {
    return router.gatewayConfiguration();
  } catch (const Refused&) {
    return std::nullopt;
  }
}

Json asJson(const std::vector<Difference>& differences) {
  Json result = Json::array();
  for (const Difference& d : differences) {
    const Json interface = d.interface.empty() ? Json() : Json(d.interface);
    result.push_back({{"interface", interface},
                      {"setting", d.setting},
                      {"before", d.before},
                      {"after", d.after}});
  }
  return result;
}

/// A row for each difference; only the first has the cells of the change itself.
void addRows(Table& table, std::vector<Table::Cell> change,
             const std::vector<Difference>& differences) {
  const size_t described = change.size();
  if (differences.empty()) table.add(change);
  for (const Difference& d : differences) {
    for (const std::string& cell :
         {d.interface, d.setting, valueText(d, d.before), valueText(d, d.after)}) {
      change.emplace_back(cell);
    }
    table.add(std::exchange(change, std::vector<Table::Cell>(described, "")));
  }
}

void show(Session& session) {
  Router& router = session.router();
  const std::vector<Change> history = router.history();
  const std::vector<Service> services = router.services();
  std::vector<std::vector<Difference>> changed;
  if (!history.empty())
    changed = differences(history, presentConfiguration(router), router.interfaces());
  Json result = Json::array();
  Table table({">ID", "WHEN", "WHO", "CHANGE", "INTERFACE", "SETTING", "BEFORE", "AFTER"});
  for (size_t i = history.size(); i-- > 0;) {
    const Change& change = history[i];
    const std::string who = nameOf(change.service, services);
    result.push_back({{"id", change.id},
                      {"time", change.time.time_since_epoch().count()},
                      {"service", who},
                      {"text", change.text},
                      {"changed", asJson(changed[i])}});
    addRows(table, {std::to_string(change.id), localTime(change.time), who, change.text},
            changed[i]);
  }
  if (session.json) {
    session.print(result);
  } else if (table.empty()) {
    session.out() << "Nothing was changed.\n";
  } else {
    session.print(table);
  }
}

/// Undoing adds a change to the history like any other. The undone one is removed last, so that it
/// stays the newest when the undo is refused.
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
  CLI::App* history = app.add_subcommand("history", "recent changes, the newest first");
  addExamples(*history, {{"history", "who changed what, when, and from what to what"},
                         {"history --json", "for a program"}});
  history->callback([&session] { show(session); });

  CLI::App* undoing =
      app.add_subcommand("undo", "undo the newest change; a second undo makes it again");
  addExamples(*undoing, {{"undo", "undo what lumenctl history shows first"}});
  undoing->callback([&session] {
    session.changes = true;
    undo(session);
  });
}

}  // namespace lumenctl
