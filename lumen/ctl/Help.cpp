#include "lumen/ctl/Help.h"

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

namespace lumenctl {

namespace {

class HelpFormat : public CLI::Formatter {
 public:
  [[nodiscard]] std::string make_option_opts(const CLI::Option* option) const override {
    std::string text;
    if (!option->get_type_name().empty()) text = " " + option->get_type_name();
    if (option->get_required() && option->nonpositional()) text += " (required)";
    return text;
  }

  /// Lists the options of every command with each command, before its subcommands.
  [[nodiscard]] std::string make_subcommands(const CLI::App* app,
                                             CLI::AppFormatMode mode) const override {
    const std::string commands = CLI::Formatter::make_subcommands(app, mode);
    const CLI::App* root = app;
    while (root->get_parent() != nullptr) root = root->get_parent();
    if (root == app) return commands;
    const auto options = root->get_options([root](const CLI::Option* option) {
      return option != root->get_help_ptr() && option != root->get_version_ptr();
    });
    return make_group("Options of every command", false, options) + commands;
  }
};

}  // namespace

void addExamples(CLI::App& command, std::initializer_list<Example> examples, const char* note) {
  size_t widest = 0;
  for (const Example& example : examples) {
    widest = std::max(widest, std::strlen(example.arguments));
  }
  std::string text = "Examples:";
  for (const Example& example : examples) {
    std::string arguments = example.arguments;
    arguments.resize(widest, ' ');
    text += "\n  lumenctl " + arguments + "  " + example.meaning;
  }
  if (*note != '\0') text += std::string("\n\n") + note;
  command.footer(text);
}

void setHelpFormat(CLI::App& app) {
  app.formatter(std::make_shared<HelpFormat>());
  app.set_help_flag("-h,--help", "show this help");
}

}  // namespace lumenctl
