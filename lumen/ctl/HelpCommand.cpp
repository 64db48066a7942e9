#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "lumen/ctl/Commands.h"
#include "lumen/ctl/Help.h"
#include "lumen/ctl/UsageErrors.h"

namespace lumenctl {

namespace {

void show(const CLI::App& app, Session& session, const std::vector<std::string>& words) {
  const CLI::App* command = &app;
  for (const std::string& word : words) {
    const auto named = command->get_subcommands(
        [&word](const CLI::App* candidate) { return candidate->get_name() == word; });
    if (named.empty()) throw unknownCommand(*command, word);
    command = named.front();
  }
  session.out() << app.get_formatter()->make_help(command, pathOf(*command),
                                                  CLI::AppFormatMode::Normal);
}

}  // namespace

void addHelpCommand(CLI::App& app, Session& session) {
  CLI::App* command =
      app.add_subcommand("help", "show how a command is used, or list the commands");
  addExamples(*command, {{"help", "the commands"}, {"help upnp setup", "one of them"}});
  auto words = std::make_shared<std::vector<std::string>>();
  command->add_option("command", *words, "such as nat close")->type_name("COMMAND...");
  command->callback([&app, &session, words] { show(app, session, *words); });
}

void runWhenBare(CLI::App& group, std::function<void()> shows) {
  group.require_subcommand(0, 1);
  group.callback([&group, shows = std::move(shows)] {
    if (group.get_subcommands().empty()) shows();
  });
}

}  // namespace lumenctl
