#pragma once

#include <CLI/App.hpp>
#include <initializer_list>

/// What --help says beside the commands and options themselves.
namespace lumenctl {

/// A command line as somebody would type it.
struct Example {
  const char* arguments;  ///< behind the program's name
  const char* meaning;
};

/// Gives `command` the part "Examples:" at the end of its help, with the text `note` behind it.
void addExamples(CLI::App& command, std::initializer_list<Example> examples, const char* note = "");

/// Lets `app`, and the commands that are added to it from then on, show their help as it shall
/// look.
void setHelpFormat(CLI::App& app);

}  // namespace lumenctl
