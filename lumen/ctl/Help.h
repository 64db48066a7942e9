#pragma once

#include <CLI/App.hpp>
#include <initializer_list>

/// What --help shows besides the commands and options themselves.
namespace lumenctl {

/// A command line to type.
struct Example {
  const char* arguments;  ///< after the program's name
  const char* meaning;
};

/// Gives `command` the part "Examples:" at the end of its help, followed by the text `note`.
void addExamples(CLI::App& command, std::initializer_list<Example> examples, const char* note = "");

/// Sets the layout of --help for `app` and for the commands that are added to it afterwards.
void setHelpFormat(CLI::App& app);

}  // namespace lumenctl
