#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>
#include <utility>

#include "base/Folder.h"
#include "support/TempDir.h"

namespace {

using Names = std::set<std::string>;

Names namesIn(Folder& folder) {
  Names names;
  while (const dirent* const entry = folder.next()) names.insert(entry->d_name);
  return names;
}

TEST(FolderTest, HasItsEntriesWithoutTheDots) {
  const lm::test::TempDir made;
  made.write("file", "");
  made.write(".hidden", "");
  made.makeDirectory("..folder");
  Folder folder(made.path());
  EXPECT_TRUE(folder.valid());
  EXPECT_EQ(namesIn(folder), (Names{"file", ".hidden", "..folder"}));
  EXPECT_EQ(folder.next(), nullptr);
}

TEST(FolderTest, SeesWhatWasMadeSinceWhenItBeginsAgain) {
  const lm::test::TempDir made;
  Folder opened(made.path());
  EXPECT_EQ(namesIn(opened), Names{});
  Folder folder = std::move(opened);
  made.write("file", "");
  folder.rewind();
  EXPECT_EQ(namesIn(folder), Names{"file"});
}

TEST(FolderTest, HasNothingWhenItCannotBeOpened) {
  const lm::test::TempDir made;
  Folder folder(made.file("missing"));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(folder.valid());
  EXPECT_EQ(folder.next(), nullptr);
  folder.rewind();
}

}  // namespace
