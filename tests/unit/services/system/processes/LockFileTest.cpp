#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "lumen/services/system/processes/LockFile.h"
#include "support/RefusedCall.h"
#include "support/TempDir.h"

namespace lumen {
namespace {

class LockFileTest : public testing::Test {
 protected:
  [[nodiscard]] std::string path() const { return folder_.file("lock"); }

  /// Another process that takes the lock and waits for its end; its exit status if it cannot.
  [[nodiscard]] pid_t holder() {
    int ready[2] = {-1, -1};
    EXPECT_EQ(pipe(ready), 0);
    const pid_t pid = fork();
    if (pid == 0) {
      const lm::Fd lock = openLockFile(path());
      const char taken = takeLock(lock.get()) ? 'y' : 'n';
      if (write(ready[1], &taken, 1) != 1 || taken != 'y') _exit(1);
      while (true) pause();
    }
    char taken = 0;
    EXPECT_EQ(read(ready[0], &taken, 1), 1);
    EXPECT_EQ(taken, 'y');
    close(ready[0]);
    close(ready[1]);
    return pid;
  }

  static void end(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }

  lm::test::TempDir folder_;
};

// Promise: A lock file names its holder, is free when that has ended, is for root alone and no link
// to another file.
TEST_F(LockFileTest, NamesItsHolder) {
  const pid_t pid = holder();
  const lm::Fd lock = openLockFile(path());
  EXPECT_EQ(holderOf(lock.get()), pid);
  EXPECT_FALSE(takeLock(lock.get()));
  EXPECT_EQ(holderOf(lock.get()), pid) << "the failed attempt has changed nothing";
  end(pid);
}

TEST_F(LockFileTest, IsFreeWhenItsHolderHasEnded) {
  end(holder());
  const lm::Fd lock = openLockFile(path());
  EXPECT_EQ(holderOf(lock.get()), 0);
  EXPECT_TRUE(takeLock(lock.get()));
}

TEST_F(LockFileTest, IsNotTakenWhereTheSystemHasNoLocks) {
  const lm::Fd lock = openLockFile(path());
  whileRefused({SCMP_SYS(fcntl)}, ENOLCK, [&] {
    EXPECT_FALSE(takeLock(lock.get()));
    EXPECT_EQ(holderOf(lock.get()), 0);
  });
}

TEST_F(LockFileTest, IsForRootOnly) {
  const lm::Fd lock = openLockFile(path());
  struct stat info = {};
  ASSERT_EQ(fstat(lock.get(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U & ~0600U, 0U);
}

TEST_F(LockFileTest, IsNoLinkToAnotherFile) {
  std::filesystem::create_symlink("/etc/passwd", path());
  EXPECT_FALSE(openLockFile(path()).valid());
}

}  // namespace
}  // namespace lumen
