#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <functional>
#include <string>

#include "lumen/services/system/processes/Privileges.h"
#include "support/RefusedCall.h"
#include "support/WhyNot.h"

namespace lumen {
namespace {

/// Runs `check` in a process of its own, since there is no way back. Returns what it returned.
bool inAChild(const std::function<bool()>& check) {
  const pid_t pid = fork();
  if (pid == 0) _exit(check() ? 0 : 1);
  int status = -1;
  waitpid(pid, &status, 0);
  return status == 0;
}

bool statusHas(const std::string& expected) {
  std::ifstream file("/proc/self/status");
  for (std::string line; std::getline(file, line);) {
    if (line == expected) return true;
  }
  return false;
}

class PrivilegesTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(geteuid(), 0U) << "these tests must be run by root"; }
};

// Also proves [capabilities].
TEST_F(PrivilegesTest, AreTheNeededOnesAndNoOther) {
  // CAP_KILL 5, CAP_SETGID 6, CAP_SETUID 7, CAP_NET_BIND_SERVICE 10,
  // CAP_NET_ADMIN 12.
  EXPECT_TRUE(inAChild([] {
    return keepCapabilities(neededCapabilities()) && statusHas("CapEff:\t00000000000014e0") &&
           statusHas("CapPrm:\t00000000000014e0") && statusHas("CapInh:\t0000000000000400") &&
           statusHas("CapBnd:\t0000000000000000") && statusHas("CapAmb:\t0000000000000000") &&
           statusHas("NoNewPrivs:\t1");
  }));
}

// Also proves [capabilities].
TEST_F(PrivilegesTest, CanBeGivenUpInTwoSteps) {
  EXPECT_TRUE(inAChild([] {
    return keepCapabilities(capabilitiesForPrivateRoot()) &&
           checkPrivileges(capabilitiesForPrivateRoot()).ok() &&
           keepCapabilities(neededCapabilities()) && statusHas("CapPrm:\t00000000000014e0");
  }));
}

// Also proves [lumend-refuses].
TEST_F(PrivilegesTest, AreNotHeldForGivenUpWhenTheyWereNot) {
  for (const int call : {SCMP_SYS(capset), SCMP_SYS(prctl)}) {
    whileRefused({call}, EPERM, [] {
      EXPECT_TRUE(inAChild([] { return !keepCapabilities(neededCapabilities()); }));
    });
  }
}

// Promise [lumend-root]: lumend started by another user than root says that it `must be started by
// root`, and one that lacks a capability names it, `lumend: lacks kill`, and ends with 1.
TEST_F(PrivilegesTest, AreNamedWhenTheyAreMissing) {
  EXPECT_EQ(whyNot(checkPrivileges(neededCapabilities())), "");
  EXPECT_TRUE(inAChild([] {
    const std::array<unsigned, 2> two = {CAP_SETUID, CAP_SETGID};
    return keepCapabilities(two) && whyNot(checkPrivileges(neededCapabilities())) ==
                                        "lacks net_admin, kill, net_bind_service";
  }));
  EXPECT_TRUE(inAChild([] {
    return setuid(54321) == 0 &&
           whyNot(checkPrivileges(neededCapabilities())) == "must be started by root";
  }));
}

}  // namespace
}  // namespace lumen
