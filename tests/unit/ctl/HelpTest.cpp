#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "ctl/FakePlatform.h"

namespace lumenctl {
namespace {

using Words = std::vector<std::string>;

/// The lines of `help` below the one that is `heading`, to the next empty one.
Words part(const std::string& help, const std::string& heading) {
  Words lines;
  std::istringstream text(help);
  bool within = false;
  for (std::string line; std::getline(text, line);) {
    if (within && line.empty()) break;
    if (within) lines.push_back(line);
    if (line == heading) within = true;
  }
  return lines;
}

std::string firstWord(const std::string& line) {
  std::string word;
  std::istringstream(line) >> word;
  return word;
}

/// What --help of the program and of all its commands says.
struct Help : testing::Test {
  Help() { ask({}); }

  void ask(Words command) {
    Words arguments = command;
    arguments.emplace_back("--help");
    const auto result = router.lumenctl(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    helps.push_back(result.out);
    std::string typed = "  lumenctl";
    for (const std::string& word : command) typed += " " + word;
    calls.push_back(typed + " ");
    command.emplace_back();
    for (const std::string& line : part(result.out, "Subcommands:")) {
      if (line.size() < 3 || line[2] == ' ') continue;  // a description that goes on
      command.back() = firstWord(line);
      ask(command);
    }
  }

  FakePlatform router;
  Words helps;
  Words calls;  // how an example of each begins
};

// Also proves [ctl-help].
TEST_F(Help, KnowsEveryCommand) { EXPECT_GT(helps.size(), 25U); }

TEST_F(Help, SaysWhatAnArgumentTakesAndWhetherItIsRequired) {
  const std::string add = router.lumenctl({"upnp", "interface", "add", "--help"}).out;
  EXPECT_NE(add.find("\n  interface IF "), std::string::npos) << add;
  EXPECT_NE(add.find("\n  --role ROLE (required) "), std::string::npos) << add;
  EXPECT_NE(add.find("\n  --disable "), std::string::npos) << add;
}

// Promise: `--help` of every command lists `--json` and `--root`.
TEST_F(Help, ListsTheOptionsOfEveryCommandWithEachOfThem) {
  for (const std::string& help : helps) {
    Words options = part(help, "Options of every command:");
    if (options.empty()) options = part(help, "Options:");  // of the program itself
    for (const char* option : {"--json", "--root"}) {
      EXPECT_TRUE(std::ranges::any_of(
          options, [&](const std::string& line) { return firstWord(line) == option; }))
          << option << '\n'
          << help;
    }
  }
}

// Promise [ctl-help]: `--help` of the program, and of each command and subcommand, ends with
// examples that can be typed as they are.
TEST_F(Help, GivesExamplesOfEveryCommand) {
  for (size_t i = 0; i < helps.size(); ++i) {
    EXPECT_TRUE(std::ranges::any_of(part(helps[i], "Examples:"), [&](const std::string& line) {
      return line.starts_with(calls[i]);
    })) << helps[i];
  }
}

// Also proves [ctl-help].
TEST_F(Help, GivesExamplesThatCanBeTyped) {
  for (const std::string& help : helps) {
    for (const std::string& line : part(help, "Examples:")) {
      ASSERT_TRUE(line.starts_with("  lumenctl ")) << line;
      const size_t end = line.find("  ", 2);
      ASSERT_NE(end, std::string::npos) << line;
      std::istringstream text(line.substr(2, end - 2));
      Words arguments;
      for (std::string word; text >> word && word != ">";) arguments.push_back(word);
      arguments.erase(arguments.begin());
      const auto result = FakePlatform().lumenctl(arguments);
      EXPECT_NE(result.status, 2) << line << '\n' << result.err;
    }
  }
}

// Also proves [ctl-help].
TEST_F(Help, GivesExamplesOfAHundredColumnsAtMost) {
  for (const std::string& help : helps) {
    for (const std::string& line : part(help, "Examples:")) EXPECT_LE(line.size(), 100U) << line;
  }
}

}  // namespace
}  // namespace lumenctl
