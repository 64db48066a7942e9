#include <getopt.h>
#include <gtest/gtest.h>

#include <vector>

#include "lumen/services/Options.h"

namespace lumen {
namespace {

Options start(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "lumend");
  std::vector<char*> raw;
  raw.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) raw.push_back(argument.data());
  raw.push_back(nullptr);
  optind = 0;  // getopt starts afresh
  return readOptions(static_cast<int>(arguments.size()), raw.data());
}

// Also proves [lumend-status].
TEST(Options, AreNoneForTheRealThing) {
  EXPECT_EQ(start({}).root, "");
  EXPECT_LT(start({}).status, 0);
}

// Also proves [lumend-status].
TEST(Options, NameAnotherRoot) {
  EXPECT_EQ(start({"--root", "/tmp/demo"}).root, "/tmp/demo");
  EXPECT_EQ(start({"--root=/tmp/demo"}).root, "/tmp/demo");
}

// Promise [lumend-status]: `lumend --help` and `lumend --version` end with 0, wrong arguments with
// 2 and the usage on standard error.
TEST(Options, AskForHelpAndVersion) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(start({"--version"}).status, 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "lumend " PALINODE_VERSION "\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(start({"--help"}).status, 0);
  EXPECT_TRUE(testing::internal::GetCapturedStdout().starts_with("Usage: lumend [--root DIR]\n"));
}

// Also proves [lumend-status].
TEST(Options, EndWithTwoWhenTheyAreWrong) {
  testing::internal::CaptureStderr();
  const std::vector<std::vector<std::string>> wrong = {
      {"--unknown"}, {"-x"}, {"--root"}, {"--root="}, {"/tmp/demo"}, {"--root", "/a", "more"}};
  for (const auto& arguments : wrong) EXPECT_EQ(start(arguments).status, 2) << arguments[0];
  EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace lumen
