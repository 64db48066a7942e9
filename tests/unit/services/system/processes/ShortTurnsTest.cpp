#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "lumen/services/system/processes/ShortTurns.h"
#include "lumen/values/KernelVersion.h"

namespace lumen {
namespace {

/// What the kernel gives this process to run in one go; empty: it does not say.
std::string turn() {
  std::ifstream file("/proc/self/sched");
  for (std::string word; file >> word;) {
    if (word == "se.slice" && file >> word >> word) return word;
  }
  return "";
}

// Promise: From Linux 6.12 on, lumend and its services run soon after they wake although other
// programs compute, since the kernel knows that their turns are short. Their priority stays.
TEST(ShortTurns, AreThoseOfTheProcessAndItsChildren) {
  utsname system = {};
  uname(&system);
  const auto version = KernelVersion::parse(system.release);
  if (!version || *version < KernelVersion{.major = 6, .minor = 12}) {
    GTEST_SKIP() << "Linux " << system.release << " gives all programs the same turns";
  }
  if (turn().empty()) GTEST_SKIP() << "this kernel does not say what turns a program has";
  const pid_t pid = fork();
  if (pid == 0) {
    setpriority(PRIO_PROCESS, 0, 5);
    takeShortTurns();
    if (turn() != "100000" || getpriority(PRIO_PROCESS, 0) != 5) _exit(1);
    const pid_t child = fork();
    if (child == 0) _exit(turn() == "100000" ? 0 : 2);
    int status = -1;
    waitpid(child, &status, 0);
    _exit(WEXITSTATUS(status));
  }
  int status = -1;
  waitpid(pid, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace lumen
