#include "lumen/ctl/completion/CompletionTables.h"

#include <algorithm>
#include <vector>

#include "lumen/ctl/UsageErrors.h"
#include "lumen/ctl/commands/Arguments.h"

namespace lumenctl {

namespace {

using Words = std::vector<std::string>;

/// All words in one pair of quotes: the shells must not expand them.
std::string quoted(const Words& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return "'" + text + "'";
}

Words optionNames(const CLI::App& command) {
  Words names;
  for (const CLI::Option* option : command.get_options()) {
    if (option->nonpositional()) names.push_back("--" + option->get_lnames().front());
  }
  return names;
}

Words split(const std::string& text, char separator) {
  Words parts;
  size_t begin = 0;
  for (size_t end; (end = text.find(separator, begin)) != text.npos; begin = end + 1) {
    parts.push_back(text.substr(begin, end - begin));
  }
  parts.push_back(text.substr(begin));
  return parts;
}

/// One table: a function that takes a key and prints the words of its entry.
class Table {
 public:
  Table(const std::string& comment, const std::string& name)
      : text_("# " + comment + "\n" + name + "() {\n  case \"$1\" in\n") {}

  void add(const std::string& patterns, const Words& words) {
    if (!words.empty()) text_ += "    " + patterns + ") echo " + quoted(words) + " ;;\n";
  }

  /// `always` is printed for every key, after its own words.
  [[nodiscard]] std::string finished(const Words& always = {}) const {
    const std::string last = always.empty() ? "" : "  echo " + quoted(always) + "\n";
    return text_ + "  esac\n" + last + "}\n";
  }

 private:
  std::string text_;
};

/// The three tables while the tree of commands is walked.
class Tables {
 public:
  explicit Tables(const CLI::App& app) : app_(app) { add(app, ""); }

  [[nodiscard]] std::string text() const {
    return commands_.finished() + "\n" + options_.finished(ofEveryCommand()) + "\n" +
           values_.finished();
  }

 private:
  void add(const CLI::App& command, const std::string& path) {
    Words below;
    for (const CLI::App* child : command.get_subcommands({})) below.push_back(child->get_name());
    // "help" takes the same commands.
    commands_.add("'" + path + "' | 'help" + (path.empty() ? "" : " ") + path + "'", below);
    addOptions(command, path);
    for (const CLI::Option* option : command.get_options()) addValues(*option, path);
    for (const CLI::App* child : command.get_subcommands({})) {
      add(*child, (path.empty() ? "" : path + " ") + child->get_name());
    }
  }

  void addOptions(const CLI::App& command, const std::string& path) {
    Words own = optionNames(command);
    const Words everywhere = ofEveryCommand();
    own.erase(std::remove_if(own.begin(), own.end(),
                             [&](const std::string& name) {
                               return std::find(everywhere.begin(), everywhere.end(), name) !=
                                      everywhere.end();
                             }),
              own.end());
    options_.add("'" + path + "'", own);
  }

  void addValues(const CLI::Option& option, const std::string& path) {
    const std::string type = option.get_type_name();
    std::string key = option.nonpositional()
                          ? "'" + path + " --" + option.get_lnames().front() + "'"
                          : "'" + path + "'";
    // An option of the program itself may follow any command.
    if (path.empty() && option.nonpositional()) key = "*" + key;
    if (type == "COMMAND...") return;  // in the table of commands
    if (type == "IPV6-HOST") return;   // after a port, which the shells see
    if (type == "ROLE") {
      values_.add(key, {roleName(Role::external), roleName(Role::internal)});
    } else if (type.rfind("NAME=", 0) == 0) {
      addSettings(option, path, type.substr(type.find('=') + 1));
    } else if (!type.empty()) {
      values_.add(key, {type});
    }
  }

  /// `choices` is like "on|off...", or one word when the setting takes many values.
  void addSettings(const CLI::Option& option, const std::string& path, const std::string& choices) {
    Words names = settingsIn(option.get_description());
    std::string keys;
    for (std::string& name : names) {
      name += "=";
      keys.append(keys.empty() ? "'" : " | '").append(path).append(" ").append(name).append("'");
    }
    values_.add("'" + path + "'", names);
    if (choices.find('|') == choices.npos) return;
    values_.add(keys, split(choices.substr(0, choices.find("...")), '|'));
  }

  [[nodiscard]] Words ofEveryCommand() const {
    Words names = optionNames(app_);
    names.erase(std::remove(names.begin(), names.end(),
                            "--" + app_.get_version_ptr()->get_lnames().front()),
                names.end());
    return names;
  }

  const CLI::App& app_;
  Table commands_{"The commands below a command.", "_lumenctl_commands"};
  Table options_{"The options of a command.", "_lumenctl_options"};
  Table values_{"What a command, an option or a setting takes.", "_lumenctl_values"};
};

}  // namespace

std::string completionTables(const CLI::App& app) { return Tables(app).text(); }

}  // namespace lumenctl
