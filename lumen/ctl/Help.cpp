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
    if (option->get_required() && option->nonpositional()) text += " (needed)";
    return text;
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
  app.set_help_flag("-h,--help", "tell how it is used");
}

}  // namespace lumenctl
