#include "lumen/ctl/UsageErrors.h"

#include <vector>

#include "lumen/ctl/text/Suggestion.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

/// The innermost command that was named.
const CLI::App& parsedCommand(const CLI::App& app) {
  const std::vector<CLI::App*> parsed = app.get_subcommands();
  return parsed.empty() ? app : parsedCommand(*parsed.back());
}

std::vector<const CLI::App*> commandsOf(const CLI::App& command) {
  return command.get_subcommands([](const CLI::App*) { return true; });
}

std::vector<std::string> namesOf(const std::vector<const CLI::App*>& commands) {
  std::vector<std::string> names;
  names.reserve(commands.size());
  for (const CLI::App* command : commands) names.push_back(command->get_name());
  return names;
}

/// The paths of all commands below `command` that are called `name`.
void collect(const CLI::App& command, const std::string& name, std::vector<std::string>& paths) {
  for (const CLI::App* below : commandsOf(command)) {
    if (below->get_name() == name) paths.push_back(pathOf(*below));
    collect(*below, name, paths);
  }
}

const CLI::App& rootOf(const CLI::App& command) {
  return command.get_parent() == nullptr ? command : rootOf(*command.get_parent());
}

std::string question(const std::string& meant) {
  return meant.empty() ? "" : "; did you mean '" + meant + "'?";
}

WrongUsage unknownOption(const CLI::App& command, const std::string& argument) {
  const std::string name = argument.substr(0, argument.find('='));
  std::vector<std::string> names;
  for (const CLI::App* owner : {&command, &rootOf(command)}) {
    for (const CLI::Option* option : owner->get_options([](const CLI::Option*) { return true; })) {
      for (const std::string& known : option->get_lnames()) names.push_back("--" + known);
    }
  }
  return {"there is no option '" + name + "'" + question(likelyMeant(name, names)),
          usageAdvice(command)};
}

}  // namespace

std::string pathOf(const CLI::App& command) {
  if (command.get_parent() == nullptr) return command.get_name();
  return pathOf(*command.get_parent()) + " " + command.get_name();
}

std::string usageAdvice(const CLI::App& app) {
  return pathOf(parsedCommand(app)) + " --help shows its usage.";
}

WrongUsage unknownCommand(const CLI::App& command, const std::string& word) {
  std::string meant = likelyMeant(word, namesOf(commandsOf(command)));
  if (meant.empty()) {
    std::vector<std::string> elsewhere;
    collect(rootOf(command), word, elsewhere);
    if (elsewhere.size() == 1) meant = elsewhere.front();
  }
  const std::string path = pathOf(command);
  const bool isRoot = command.get_parent() == nullptr;
  return {(isRoot ? "there is no command '" : "'" + path + "' has no command '") + word + "'" +
              question(meant),
          path + " --help lists the commands."};
}

WrongUsage explained(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App& command = parsedCommand(app);
  const bool lacksArgument = dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
  if (!lacksArgument && dynamic_cast<const CLI::ExtrasError*>(&error) == nullptr) {
    return {error.what(), usageAdvice(app)};
  }
  const std::vector<const CLI::App*> commands = commandsOf(command);
  for (const std::string& word : app.remaining(true)) {
    if (word.size() > 1 && word.front() == '-') return unknownOption(command, word);
    if (!commands.empty()) return unknownCommand(command, word);
    return {"unexpected argument '" + word + "'", usageAdvice(app)};
  }
  if (lacksArgument && !commands.empty()) {
    return {"a command is missing: " + joined(namesOf(commands)),
            pathOf(command) + " --help lists the commands."};
  }
  return {error.what(), usageAdvice(app)};
}

}  // namespace lumenctl
