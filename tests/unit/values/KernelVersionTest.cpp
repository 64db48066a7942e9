#include <gtest/gtest.h>

#include "lumen/values/KernelVersion.h"

namespace lumen {
namespace {

/// "6.1"; empty when the release cannot be read.
std::string versionIn(std::string_view release) {
  const auto version = KernelVersion::parse(release);
  return version ? version->text() : std::string();
}

TEST(KernelVersion, IsReadFromARelease) {
  EXPECT_EQ(versionIn("5.12"), "5.12");
  EXPECT_EQ(versionIn("5.12.0"), "5.12");
  EXPECT_EQ(versionIn("5.12-rc1"), "5.12");
  EXPECT_EQ(versionIn("6.1.0-28-amd64"), "6.1");
  EXPECT_EQ(versionIn("10.0.1"), "10.0");
  EXPECT_EQ(versionIn("4.19.0-custom"), "4.19");
}

TEST(KernelVersion, IsNotReadFromAnythingElse) {
  for (const char* release : {"", "5", "5.", "unknown", "-6.1", "6x1", "6.-1", "99999999999.1"}) {
    EXPECT_EQ(versionIn(release), "") << release;
  }
}

// Also proves [kernel].
TEST(KernelVersion, IsComparedNumberByNumber) {
  for (const KernelVersion enough : {KernelVersion{5, 12}, {5, 100}, {6, 0}, {10, 0}}) {
    EXPECT_GE(enough, oldestKernel) << enough.text();
  }
  for (const KernelVersion tooOld : {KernelVersion{5, 11}, {5, 1}, {4, 19}, {4, 99}}) {
    EXPECT_LT(tooOld, oldestKernel) << tooOld.text();
  }
}

}  // namespace
}  // namespace lumen
