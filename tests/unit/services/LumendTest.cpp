#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "lumen/services/system/processes/PrivateRoot.h"
#include "support/PrivateNetwork.h"
#include "support/Program.h"
#include "support/RefusedCall.h"
#include "support/TempDir.h"

namespace lumen {
namespace {

namespace fs = std::filesystem;

using lm::test::Program;

constexpr uid_t user = 54321;

/// A folder that is to be lumend's /lumen, with one service that says what it is and that it is
/// ready; and a network to which lumend may do what it likes.
class LumendTest : public testing::Test {
 protected:
  LumendTest() {
    chmod(root_.path().c_str(), 0755);
    root_.makeDirectory("etc");
    root_.makeDirectory("etc/services");
    fs::copy(ETC "/nat-ruleset.nft", root_.file("etc/nat-ruleset.nft"));
    fs::copy(ETC "/pinhole-ruleset.nft", root_.file("etc/pinhole-ruleset.nft"));
    fs::copy(ETC "/nat-policy", root_.file("etc/nat-policy"));
    // The checkout may lie where the service's user cannot look.
    fs::copy(SERVICE_PROBE, root_.file("probe"));
    root_.write("etc/services/probe.ini",
                "[service]\nname = probe\nnumber = 40\nexecutable = /lumen/probe"
                "\nuser = 54321\nboot = yes\nstores = upnp upnpm\nnetwork = none\n");
  }

  void SetUp() override { ASSERT_EQ(geteuid(), 0U) << "these tests must be run by root"; }

  using Preparation = std::function<void()>;

  [[nodiscard]] std::unique_ptr<Program> start(const Preparation& prepare = [] {}) const {
    return std::make_unique<Program>(std::vector<std::string>{LUMEND, "--root", root_.path()},
                                     prepare);
  }

  /// As on a router, where /lumen is made by the installation.
  [[nodiscard]] std::unique_ptr<Program> startInstalled() const { return inPlace({LUMEND}); }

  /// A program to which the folder is /lumen.
  [[nodiscard]] std::unique_ptr<Program> inPlace(const std::vector<std::string>& command) const {
    return std::make_unique<Program>(command, [this] {
      if (!enterPrivateRoot(root_.path())) _exit(127);
    });
  }

  /// Its last output when it does not start, and ends with 1.
  [[nodiscard]] std::string refusal(const Preparation& prepare = [] {}) const {
    const auto lumend = start(prepare);
    std::string log = lumend->wholeOutput();
    EXPECT_EQ(lumend->status(), 1) << log;
    return log;
  }

  /// The output of a command for an administrator.
  [[nodiscard]] std::string services() const {
    Program lumenctl({LUMENCTL, "--root", root_.path(), "service", "list"});
    std::string list = lumenctl.wholeOutput();
    EXPECT_EQ(lumenctl.status(), 0) << list;
    return list;
  }
  /// Whether a service has registered.
  [[nodiscard]] bool serviceRuns() const {
    return services().find(" running ") != std::string::npos;
  }

  void expectDirectory(const std::string& name, uid_t owner, mode_t mode) const {
    struct stat info = {};
    EXPECT_EQ(stat(root_.file(name).c_str(), &info), 0) << name;
    EXPECT_EQ(info.st_uid, owner) << name;
    EXPECT_EQ(info.st_mode, S_IFDIR | mode) << name;
  }

  PrivateNetwork network_;
  lm::test::TempDir root_;
};

// Promise: lumend makes its own stores, for root alone, and with `--root` those of its services,
// each for its user alone.
TEST_F(LumendTest, ServesARootThatHasSeenNoInstallation) {
  const auto lumend = start();
  ASSERT_TRUE(lumend->prints("\nready\n"));
  expectDirectory("run", 0, 0755);
  expectDirectory("store", 0, 0755);
  for (const char* own : {"store/history", "store/identity", "store/interfaces", "store/nat"}) {
    expectDirectory(own, 0, 0700);
  }
  expectDirectory("store/upnp", user, 0700);
  expectDirectory("store/upnpm", user, 0700);
  EXPECT_TRUE(root_.has("run/lumen.sock"));

  lumend->terminate();
  EXPECT_EQ(lumend->status(), 0);
  EXPECT_FALSE(root_.has("run/lumen.sock"));
}

// Promise: A store of a service that is missing or belongs to another user is reported at the
// start: `probe: /lumen/store/upnp is missing or belongs to another user`.
TEST_F(LumendTest, LogsStoresThatTheInstallationDidNotMake) {
  for (const char* made : {"run", "store", "store/upnpm"}) root_.makeDirectory(made);
  const auto lumend = startInstalled();
  ASSERT_TRUE(lumend->prints("\nready\n"));
  lumend->terminate();
  EXPECT_EQ(lumend->status(), 0);
  const std::string log = lumend->wholeOutput();
  for (const char* store : {"upnp", "upnpm"}) {
    const std::string line =
        "probe: /lumen/store/" + std::string(store) + " is missing or belongs to another user\n";
    EXPECT_NE(log.find(line), std::string::npos) << log;
  }
}

TEST_F(LumendTest, LeavesTheStoresOfAnInstallationAlone) {
  for (const char* made : {"run", "store", "store/upnp", "store/upnpm"}) root_.makeDirectory(made);
  for (const char* store : {"store/upnp", "store/upnpm"}) {
    ASSERT_EQ(chown(root_.file(store).c_str(), user, user), 0);
  }
  const auto lumend = startInstalled();
  ASSERT_TRUE(lumend->prints("\nready\n"));
  lumend->terminate();
  EXPECT_EQ(lumend->status(), 0);
  EXPECT_EQ(lumend->wholeOutput().find("is missing"), std::string::npos);
}

// Promise: lumend closes the descriptors that it inherits, and opens `/dev/null` for a missing
// standard one.
TEST_F(LumendTest, ClosesInheritedDescriptors) {
  constexpr int leak = 77;
  const auto lumend = start([] {
    close(STDIN_FILENO);
    dup2(STDOUT_FILENO, leak);
  });
  ASSERT_TRUE(lumend->prints("\nready\n"));
  const std::string descriptors = "/proc/" + std::to_string(lumend->pid()) + "/fd/";
  EXPECT_EQ(fs::read_symlink(descriptors + "0"), "/dev/null");
  EXPECT_FALSE(fs::is_symlink(descriptors + std::to_string(leak)));
}

// Promise [one-lumend]: A second lumend for one folder ends with 1 and does not disturb the first:
// `lumend: another lumend is running, process ` and its number.
TEST_F(LumendTest, IsTheOnlyOneOfARoot) {
  const auto first = start();
  ASSERT_TRUE(first->prints("\nready\n"));
  EXPECT_EQ(refusal(),
            "lumend: another lumend is running, process " + std::to_string(first->pid()) + "\n");
  first->terminate();
  EXPECT_EQ(first->status(), 0);
}

TEST_F(LumendTest, IsJoinedByItsServices) {
  root_.write("etc/services/resolver.ini",
              "[service]\nname = resolver\nnumber = 14\nexecutable = " RESOLVER "\nuser = 54322\n");
  const auto lumend = start();
  ASSERT_TRUE(lumend->prints("\nready\n"));
  EXPECT_FALSE(serviceRuns());
  const auto resolver = inPlace({RESOLVER});
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!serviceRuns() && std::chrono::steady_clock::now() < limit) continue;
  EXPECT_TRUE(serviceRuns());

  resolver->terminate();
  EXPECT_EQ(resolver->status(), 0) << resolver->wholeOutput();
}

// Promise: Without `--root` lumend uses the `/lumen` that is there.
TEST_F(LumendTest, IsFoundWhereAnInstallationHasIt) {
  for (const char* made : {"run", "store"}) root_.makeDirectory(made);
  const auto lumend = startInstalled();
  ASSERT_TRUE(lumend->prints("\nready\n"));
  const auto lumenctl = inPlace({LUMENCTL, "service", "list"});
  EXPECT_EQ(lumenctl->wholeOutput(), services());
  EXPECT_EQ(lumenctl->status(), 0);
}

// Promise [kernel]: On a kernel before 5.12 lumend ends with 1: `lumend: needs Linux 5.12 for a NAT
// table that no other program can change; this is ` and its release.
TEST_F(LumendTest, NeedsAKernelThatLetsItOwnATable) {
  constexpr unsigned long asLinux2 = 0x0020000;  // UNAME26 of linux/personality.h
  EXPECT_TRUE(refusal([] { personality(asLinux2); })
                  .starts_with("lumend: needs Linux 5.12 for a NAT table that no other program can "
                               "change; this is 2.6."));
}

// Also proves [lumend-root].
TEST_F(LumendTest, NeedsItsCapabilities) {
  EXPECT_EQ(refusal([] { prctl(PR_CAPBSET_DROP, CAP_KILL, 0, 0, 0); }), "lumend: lacks kill\n");
}

// Promise [lumend-refuses]: lumend ends with 1 when it cannot give up its privileges, cannot open
// `/dev/null` or cannot use one of its files, which it names: `lumend: /lumen/run/lumend.lock: Too
// many levels of symbolic links`.
TEST_F(LumendTest, DoesNotServeWithMoreThanItNeeds) {
  whileRefused({SCMP_SYS(capset)}, EPERM, [this] {
    EXPECT_EQ(refusal(), "lumend: cannot give up its privileges: Operation not permitted\n");
  });
}

// Also proves [lumend-refuses].
TEST_F(LumendTest, NeedsStandardDescriptors) {
  EXPECT_EQ(refusal([] {
              unshare(CLONE_NEWNS);
              mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
              mount("none", "/dev", "tmpfs", 0, nullptr);
            }),
            "lumend: /dev/null: No such file or directory\n");
}

// Also proves [lumend-refuses], [policy-error].
TEST_F(LumendTest, NamesTheFileThatKeepsItFromStarting) {
  root_.makeDirectory("run");
  fs::create_symlink("elsewhere", root_.file("run/lumend.lock"));
  EXPECT_EQ(refusal(), "lumend: /lumen/run/lumend.lock: Too many levels of symbolic links\n");
  fs::remove(root_.file("run/lumend.lock"));

  root_.makeDirectory("run/lumen.sock");
  EXPECT_EQ(refusal(), "lumend: /lumen/run/lumen.sock: Address already in use\n");
  fs::remove(root_.file("run/lumen.sock"));

  fs::remove(root_.file("etc/nat-ruleset.nft"));
  EXPECT_EQ(refusal(), "lumend: /lumen/etc/nat-ruleset.nft: No such file or directory\n");
  root_.write("etc/nat-ruleset.nft", "nonsense\n");
  EXPECT_TRUE(refusal().starts_with(
      "lumend: NAT table: cannot load the NAT ruleset /lumen/etc/nat-ruleset.nft"));

  root_.write("etc/nat-policy", "nonsense\n");
  EXPECT_EQ(refusal(),
            "lumend: NAT policy: /lumen/etc/nat-policy:1: not a line of the form name = value\n");

  fs::remove_all(root_.file("store"));
  root_.write("store", "a file");
  EXPECT_EQ(refusal(), "lumend: /lumen/store: Not a directory\n");
}

// Promise [lumend-ruleset]: Without its NAT ruleset it ends with 1 before it makes a file: `lumend:
// /lumen/etc/nat-ruleset.nft: No such file or directory`; where the package is installed it adds
// that `systemctl start lumend` starts it.
TEST_F(LumendTest, MakesNoFileWithoutItsConfiguration) {
  for (const char* made : {"run", "store"}) root_.makeDirectory(made);
  fs::remove_all(root_.file("etc"));
  const auto lumend = startInstalled();
  EXPECT_EQ(lumend->wholeOutput(),
            "lumend: /lumen/etc/nat-ruleset.nft: No such file or directory\n");
  EXPECT_EQ(lumend->status(), 1);
  EXPECT_TRUE(fs::is_empty(root_.file("run")));
  EXPECT_TRUE(fs::is_empty(root_.file("store")));
}

// Also proves [lumend-folder].
TEST_F(LumendTest, NamesTheErrorInItsArguments) {
  Program nowhere({LUMEND, "--root", "/nowhere"});
  EXPECT_EQ(nowhere.wholeOutput(), "lumend: /nowhere: No such file or directory\n");
  EXPECT_EQ(nowhere.status(), 1);
  Program wrong({LUMEND, "--unknown"});
  EXPECT_EQ(wrong.status(), 2);
}

}  // namespace
}  // namespace lumen
