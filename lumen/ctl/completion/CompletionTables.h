#pragma once

#include <CLI/App.hpp>
#include <string>

namespace lumenctl {

/// The tables of the command line `app` from which a shell completes it, as functions that bash
/// and zsh read alike:
///
///     _lumenctl_commands COMMAND           the commands below it
///     _lumenctl_options COMMAND            its options and those of every command
///     _lumenctl_values COMMAND             what it takes
///     _lumenctl_values "COMMAND OPTION"    what its option takes
///     _lumenctl_values "COMMAND NAME="     what a setting of it takes
///
/// COMMAND is empty for the program itself. Values are words, those of settings with '=' at their
/// end, or, where the router knows them, the name that --help has for them, such as IF.
[[nodiscard]] std::string completionTables(const CLI::App& app);

}  // namespace lumenctl
