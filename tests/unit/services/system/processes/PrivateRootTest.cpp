#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>

#include "lumen/services/system/processes/PrivateRoot.h"
#include "support/RefusedCall.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lumen {
namespace {

namespace fs = std::filesystem;

/// Everything happens in a child, whose view of the file system is its own.
class PrivateRootTest : public testing::Test {
 protected:
  PrivateRootTest() {
    chmod(directory_.path().c_str(), 0755);
    directory_.write("here", "yes");
  }

  void SetUp() override { ASSERT_EQ(geteuid(), 0U) << "these tests must be run by root"; }

  /// What `check` says went wrong; empty: nothing.
  static std::string inAChild(const std::function<std::string()>& check) {
    int result[2] = {-1, -1};
    EXPECT_EQ(pipe(result), 0);
    const pid_t pid = fork();
    if (pid == 0) {
      const std::string text = check();
      _exit(write(result[1], text.data(), text.size()) < 0 ? 1 : 0);
    }
    close(result[1]);
    std::string text;
    char buffer[512];
    for (ssize_t length = 0; (length = read(result[0], buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<size_t>(length));
    }
    close(result[0]);
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    return text;
  }

  static std::set<std::string> namesIn(const std::string& path) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(path)) names.insert(entry.path().filename());
    return names;
  }

  lm::test::TempDir directory_;
};

// Promise: `lumend --root DIR` sees DIR at `/lumen`, and no other program does, whether or not
// there is a `/lumen`.
TEST_F(PrivateRootTest, ShowsTheDirectoryInPlaceAndNothingOutside) {
  const std::set<std::string> before = namesIn("/");
  EXPECT_EQ(inAChild([&] {
              std::string error = whyNot(enterPrivateRoot(directory_.path()));
              if (error.empty() && !fs::exists("/lumen/here")) error = "it is not there";
              std::ofstream("/lumen/made") << "inside";
              return error;
            }),
            "");
  EXPECT_EQ(namesIn("/"), before);
  EXPECT_TRUE(directory_.has("made"));
}

TEST_F(PrivateRootTest, LeavesEverythingElseWhereItIs) {
  std::set<std::string> before = namesIn("/");
  before.insert("lumen");
  const std::string work = fs::current_path();
  EXPECT_EQ(inAChild([&]() -> std::string {
              std::string error = whyNot(enterPrivateRoot(directory_.path()));
              if (!error.empty()) return error;
              if (namesIn("/") != before) return "other names in /";
              if (!fs::exists("/proc/self/status")) return "no /proc";
              if (!fs::exists("/dev/null")) return "no /dev";
              if (!fs::exists(work)) return "no " + work;
              if (!directory_.has("here")) return "no " + directory_.path();
              if (system("/bin/true") != 0) return "programs do not run";
              return {};
            }),
            "");
}

TEST_F(PrivateRootTest, CoversALumenThatIsThere) {
  EXPECT_EQ(inAChild([&]() -> std::string {
              // A root in which /lumen is there, made the same way.
              std::string error = whyNot(enterPrivateRoot(directory_.path()));
              if (!error.empty()) return error;
              directory_.makeDirectory("other");
              chmod(directory_.file("other").c_str(), 0755);
              directory_.write("other/there", "yes");
              error = whyNot(enterPrivateRoot(directory_.file("other")));
              if (!error.empty()) return error;
              return namesIn("/lumen") == std::set<std::string>{"there"} ? "" : "another one";
            }),
            "");
}

// Promise [lumend-folder]: A DIR that is missing, is no directory or that services cannot look into
// is refused with the reason: `services run as other users and cannot look into it (chmod 755)`.
TEST_F(PrivateRootTest, ReportsWhatIsWrongWithTheDirectory) {
  EXPECT_EQ(inAChild([&] { return whyNot(enterPrivateRoot("/nowhere")); }),
            "/nowhere: No such file or directory");
  EXPECT_EQ(inAChild([&] { return whyNot(enterPrivateRoot(directory_.file("here"))); }),
            directory_.file("here") + ": is no directory");
  chmod(directory_.path().c_str(), 0700);
  EXPECT_EQ(
      inAChild([&] { return whyNot(enterPrivateRoot(directory_.path())); }),
      directory_.path() + ": services run as other users and cannot look into it (chmod 755)");
}

// Also proves [lumend-folder].
TEST_F(PrivateRootTest, ReportsWhatTheSystemRefuses) {
  struct Case {
    int call;
    const char* what;  // "" is any entry of the old root
  };
  const Case always[] = {{SCMP_SYS(unshare), "mount namespace"}, {SCMP_SYS(mount), "/"}};
  const Case withoutMountPoint[] = {{SCMP_SYS(open_tree), ""}, {SCMP_SYS(move_mount), ""},
                                    {SCMP_SYS(mkdir), ""},     {SCMP_SYS(openat), "/"},
                                    {SCMP_SYS(chdir), "/dev"}, {SCMP_SYS(pivot_root), "pivot_root"},
                                    {SCMP_SYS(umount2), "/"}};
  const auto expectRefusal = [this](const Case& c) {
    whileRefused({c.call}, EPERM, [&] {
      const std::string error =
          inAChild([this] { return whyNot(enterPrivateRoot(directory_.path())); });
      const std::string reason = std::string(c.what) + ": Operation not permitted";
      if (*c.what == '\0') {
        EXPECT_TRUE(error.ends_with(reason)) << error;
      } else {
        EXPECT_EQ(error, reason);
      }
    });
  };
  for (const Case& c : always) expectRefusal(c);
  if (fs::exists("/lumen")) return;
  for (const Case& c : withoutMountPoint) expectRefusal(c);
}

TEST_F(PrivateRootTest, ReportsThatADirectoryCannotChangeItsOwner) {
  for (const int call : {SCMP_SYS(fchown), SCMP_SYS(fchmod)}) {
    whileRefused({call}, EPERM, [&] {
      EXPECT_EQ(whyNot(makeDirectory(directory_.file("store"), 54321, 54322, 0700)),
                directory_.file("store") + ": Operation not permitted");
    });
  }
}

// Promise: Directories that lumend makes have their owner and mode whatever the umask, and are
// never made through a link.
TEST_F(PrivateRootTest, MakesDirectoriesWhateverTheUmask) {
  const std::string made = directory_.file("store");
  const mode_t before = umask(077);
  EXPECT_EQ(whyNot(makeDirectory(made, 54321, 54322, 0755)), "");
  EXPECT_EQ(whyNot(makeDirectory(made, 54321, 54322, 0755)), "") << "it is there already";
  umask(before);
  struct stat info = {};
  ASSERT_EQ(stat(made.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777U, 0755U);
  EXPECT_EQ(info.st_uid, 54321U);
  EXPECT_EQ(info.st_gid, 54322U);
}

TEST_F(PrivateRootTest, DoesNotFollowALinkToMakeADirectory) {
  directory_.makeDirectory("target");
  fs::create_symlink(directory_.file("target"), directory_.file("link"));
  EXPECT_EQ(whyNot(makeDirectory(directory_.file("link"), 54321, 54322, 0700)),
            directory_.file("link") + ": Not a directory");
  EXPECT_EQ(whyNot(makeDirectory(directory_.file("here"), 54321, 54322, 0700)),
            directory_.file("here") + ": Not a directory");
  EXPECT_EQ(whyNot(makeDirectory("/nowhere/store", 0, 0, 0700)),
            "/nowhere/store: No such file or directory");
}

}  // namespace
}  // namespace lumen
