#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "lumen/services/system/netlink/ControlGroups.h"
#include "support/TempDir.h"

namespace lumen {
namespace {

uint64_t numberOf(const std::string& path) {
  struct stat info = {};
  EXPECT_EQ(stat(path.c_str(), &info), 0);
  return info.st_ino;
}

TEST(ControlGroups, AreFoundByTheirNumberAtAnyDepth) {
  const lm::test::TempDir top;
  std::filesystem::create_directories(top.file("system.slice/ssh.service/worker"));
  std::filesystem::create_directories(top.file("user.slice"));
  top.write("cgroup.procs", "");
  std::filesystem::create_symlink(top.path(), top.file("loop"));
  for (const char* path : {"system.slice", "system.slice/ssh.service", "user.slice",
                           "system.slice/ssh.service/worker"}) {
    const std::string whole = top.file(path);
    EXPECT_EQ(nameOfControlGroup(top.path(), numberOf(whole)), whole.substr(whole.rfind('/') + 1));
  }
  EXPECT_EQ(nameOfControlGroup(top.path(), numberOf(top.file("cgroup.procs"))), "") << "a file";
  EXPECT_EQ(nameOfControlGroup(top.path(), numberOf(top.path())), "") << "the root has no name";
  EXPECT_EQ(nameOfControlGroup(top.file("missing"), 1), "");
}

TEST(ControlGroups, AreNotSearchedBeyondTheLimit) {
  const lm::test::TempDir top;
  std::filesystem::create_directories(top.file("a/nested"));
  std::filesystem::create_directories(top.file("b"));
  const uint64_t last = numberOf(top.file("a/nested"));
  EXPECT_EQ(nameOfControlGroup(top.path(), last, 3), "nested");
  EXPECT_EQ(nameOfControlGroup(top.path(), last, 2), "");
}

}  // namespace
}  // namespace lumen
