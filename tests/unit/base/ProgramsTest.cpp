#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "support/Program.h"

namespace lm::test {
namespace {

struct Answer {
  int status = -1;
  std::string text;  // standard output and standard error
};

/// A program that an administrator starts on a machine without a platform.
struct Started {
  std::string name;
  std::string path;
};

const std::vector<Started> programs = {{"palinode-igd", DAEMON},     {"lumend", LUMEND},
                                       {"lumen-resolver", RESOLVER}, {"lumen-web", WEB},
                                       {"palinode-pcp", PCP},        {"lumenctl", LUMENCTL}};
/// Those that take no other argument.
const std::vector<Started> services = {programs[0], programs[2], programs[3], programs[4]};

Answer run(
    const Started& program, std::vector<std::string> arguments,
    const std::function<void()>& prepare = [] {}) {
  arguments.insert(arguments.begin(), program.path);
  Program process(std::move(arguments), prepare);
  Answer answer;
  answer.text = process.wholeOutput();
  answer.status = process.status();
  return answer;
}

void discardErrors() {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDERR_FILENO);
}

void discardOutput() {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDOUT_FILENO);
}

void outputOnFullDisk() {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  dup2(full, STDOUT_FILENO);
}

// Promise [program-status]: `palinode-igd`, `lumend`, `lumen-resolver`, `lumen-web`,
// `palinode-pcp` and `lumenctl` answer
// `--version` and `--help` at once, without a platform, and end with 2 when they do not know an
// argument.
TEST(Programs, ShowTheirVersionWithoutAPlatform) {
  for (const Started& program : programs) {
    const Answer answer = run(program, {"--version"}, discardErrors);
    EXPECT_EQ(answer.text, program.name + " " PALINODE_VERSION "\n");
    EXPECT_EQ(answer.status, 0) << program.name;
  }
}

// Also proves [program-status].
TEST(Programs, ShowTheirUsageWithoutAPlatform) {
  for (const Started& program : programs) {
    const Answer answer = run(program, {"--help"}, discardErrors);
    EXPECT_NE(answer.text.find("Usage: " + program.name + " ["), std::string::npos) << answer.text;
    EXPECT_NE(answer.text.find("--version"), std::string::npos) << answer.text;
    EXPECT_EQ(answer.status, 0) << program.name;
  }
}

// Also proves [program-status].
TEST(Programs, RefuseUnknownArguments) {
  for (const Started& program : programs) {
    for (const char* unknown : {"--unknown", "-x", "unknown", ""}) {
      const Answer answer = run(program, {unknown}, discardOutput);
      EXPECT_EQ(answer.status, 2) << program.name << " '" << unknown << "'";
      EXPECT_NE(answer.text.find(program.name), std::string::npos) << answer.text;
    }
  }
}

// Promise: `palinode-igd` and `lumen-resolver` take no other argument, and show their usage on
// standard error when they get one.
TEST(Programs, ThatServeTakeAtMostOneArgument) {
  const std::vector<std::vector<std::string>> wrong = {
      {"--version", "more"}, {"--help", "--version"}, {"more", "--help"}, {"--vers"}, {"--help="}};
  for (const Started& service : services) {
    for (const auto& arguments : wrong) {
      const Answer answer = run(service, arguments, discardOutput);
      EXPECT_EQ(answer.status, 2) << service.name << " " << arguments[0];
      EXPECT_TRUE(answer.text.starts_with("Usage: " + service.name + " [--help | --version]\n"))
          << answer.text;
    }
  }
}

// Promise [program-output]: An answer to `--version` or `--help` that cannot be written ends the
// program with 1: `palinode-igd: standard output cannot be written`.
TEST(Programs, ReportThatTheirAnswerCannotBeWritten) {
  for (const Started& program : programs) {
    for (const char* question : {"--help", "--version"}) {
      const Answer answer = run(program, {question}, outputOnFullDisk);
      EXPECT_EQ(answer.text, program.name + ": standard output cannot be written\n");
      EXPECT_EQ(answer.status, 1) << program.name;
    }
  }
}

}  // namespace
}  // namespace lm::test
