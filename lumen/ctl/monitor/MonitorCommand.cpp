#include <CLI/App.hpp>
#include <chrono>
#include <ostream>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/monitor/Monitor.h"
#include "lumen/ctl/text/Errors.h"

namespace lumenctl {

namespace {

TracedMessage::Time now() {
  return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

void monitor(Session& session) {
  Router& router = session.router();
  Monitor monitor(router.services());
  router.startMonitoring();
  while (const std::optional<lm::message> shown = router.nextMonitored()) {
    const TracedMessage traced = monitor.read(*shown, now());
    if (session.json) {
      session.printLine(traced.json());
    } else {
      session.out() << traced.line() << '\n' << std::flush;
    }
    if (!session.out()) throw Refused(outputFailed);
  }
}

}  // namespace

void addMonitorCommand(CLI::App& app, Session& session) {
  CLI::App* command = app.add_subcommand(
      "monitor", "show each message between the router's programs as it passes, until Ctrl-C");
  addExamples(*command, {{"monitor", "watch them"},
                         {"monitor --json > messages", "keep them, an object on each line"}});
  command->callback([&session] { monitor(session); });
}

}  // namespace lumenctl
