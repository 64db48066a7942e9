#include <CLI/App.hpp>
#include <CLI/Validators.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/machine/Machine.h"
#include "lumen/ctl/status/Status.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

struct Arguments {
  std::optional<uint32_t> port;
  std::vector<std::string> names;
};

void print(Session& session, const WebPage& page) {
  if (session.json) {
    session.print({{"enabled", page.enabled},
                   {"port", page.port},
                   {"names", page.names},
                   {"urls", page.urls()},
                   {"problem", page.problem}});
  } else if (!page.enabled) {
    session.out() << "The status page is switched off.\n";
  } else {
    session.out() << "The status page: " << printable(webPageText(page)) << '\n';
    if (!page.names.empty()) session.out() << "Also by name: " << printable(page.names) << '\n';
  }
}

/// What the page says of itself once it is served, or why it is not. A change can take another life
/// of its program, which a question starts.
WebPage awaitPage(Session& session) {
  constexpr std::chrono::milliseconds period(100);
  constexpr int most = 30;
  WebPage page = session.router().webPage();
  for (int i = 0; i < most && page.served.empty() && page.problem.empty(); ++i) {
    if (!session.machine().pause(period)) break;
    page = session.router().webPage();
  }
  return page;
}

void switchOn(Session& session, const Arguments& arguments) {
  WebPageChange change;
  change.enabled = true;
  change.port = arguments.port;
  if (!arguments.names.empty()) change.names = joined(arguments.names, " ");
  session.router().changeWebPage(change);
  session.done("status page: " + webPageText(awaitPage(session)));
}

}  // namespace

void addWebCommands(CLI::App& app, Session& session) {
  CLI::App* group = app.add_subcommand("web", "the status page for browsers on the LAN");
  addExamples(*group, {{"web on", "serve it at http://ADDRESS/ of each internal interface"},
                       {"web status", "where it is"},
                       {"web off", "serve it no more"}});
  const auto show = [&session] { print(session, session.router().webPage()); };
  runWhenBare(*group, show);

  auto arguments = std::make_shared<Arguments>();
  CLI::App* on = group->add_subcommand("on", "serve it, also after the next start");
  addExamples(*on, {{"web on", "at port 80, or the one that was set last"},
                    {"web on --port 8081", "at another port"},
                    {"web on --name router.lan", "for browsers that ask by that name, too"}});
  on->add_option("--port", arguments->port, "TCP port, 1 to 65535; 80 unless one was set before")
      ->check(CLI::Range(1, 65535))
      ->type_name("PORT");
  on->add_option(
        "--name", arguments->names,
        "names under which browsers may ask for it, in place of those set before; they may "
        "ask by each address of this router in any case")
      ->type_name("NAME...");
  on->callback([&session, arguments] {
    session.changes = true;
    switchOn(session, *arguments);
  });

  CLI::App* off = group->add_subcommand("off", "serve it no more");
  addExamples(*off, {{"web off", "no port of it stays open"}});
  off->callback([&session] {
    session.changes = true;
    WebPageChange change;
    change.enabled = false;
    session.router().changeWebPage(change);
    session.done("status page: switched off");
  });

  CLI::App* status = group->add_subcommand("status", "where it is served, and what is wrong");
  addExamples(*status, {{"web status", "its addresses"}, {"web status --json", "for a program"}});
  status->callback(show);
}

}  // namespace lumenctl
