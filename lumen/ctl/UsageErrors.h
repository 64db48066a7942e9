#pragma once

#include <CLI/App.hpp>
#include <string>

#include "lumen/ctl/text/Errors.h"

/// What is said about a command line that is wrong.
namespace lumenctl {

/// "lumenctl nat policy".
[[nodiscard]] std::string pathOf(const CLI::App& command);

/// `command` has no command `word`.
[[nodiscard]] WrongUsage unknownCommand(const CLI::App& command, const std::string& word);

/// Why the parser of `app` refused the arguments. Names the word that was not understood, the one
/// that was likely meant, and where the right ones are listed.
[[nodiscard]] WrongUsage explained(const CLI::App& app, const CLI::ParseError& error);

/// Names the --help of the command that was being parsed.
[[nodiscard]] std::string usageAdvice(const CLI::App& app);

}  // namespace lumenctl
