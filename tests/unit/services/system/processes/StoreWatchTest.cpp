#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/runtime/EventLoop.h"
#include "lumen/services/system/processes/StoreWatch.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t service = 40;

class StoreWatchTest : public testing::Test, public StoreWatch::Observer {
 protected:
  void storeExceeded(uint32_t number, const std::string& why) override {
    EXPECT_EQ(number, service);
    reports_.push_back(why);
  }

  void write(size_t from, size_t to) const {
    for (size_t i = from; i < to; ++i) folder_.write(std::to_string(i), "");
  }

  /// What was reported since the last call.
  std::vector<std::string> reports() {
    for (int turns = 0; turns < 10; ++turns) loop_.turn(0ms);
    return std::exchange(reports_, {});
  }

  lm::test::TempDir folder_;
  lm::SystemClock clock_;
  lm::EventLoop loop_{clock_};
  StoreWatch watch_{*this};
  std::vector<std::string> reports_;
};

// Promise [store-limit]: A service whose store holds more than 128 files, or a directory, is
// killed; a file has at most 128 KiB.
TEST_F(StoreWatchTest, ReportsTheFileThatIsOneTooMany) {
  ASSERT_TRUE(watch_.add(service, folder_.path(), geteuid()));
  write(0, StoreWatch::mostFiles);
  EXPECT_EQ(reports(), std::vector<std::string>{});
  write(StoreWatch::mostFiles, StoreWatch::mostFiles + 1);
  EXPECT_EQ(reports(), std::vector<std::string>{folder_.path() + " holds more than 128 files"});
}

// Also proves [store-limit].
TEST_F(StoreWatchTest, ReportsADirectoryWhichCouldHoldMore) {
  ASSERT_TRUE(watch_.add(service, folder_.path(), geteuid()));
  std::filesystem::create_directory(folder_.file("below"));
  EXPECT_EQ(reports(), std::vector<std::string>{folder_.path() + " holds a directory"});
}

TEST_F(StoreWatchTest, CountsFilesThatAreMovedIntoTheStore) {
  const lm::test::TempDir elsewhere;
  ASSERT_TRUE(watch_.add(service, folder_.path(), geteuid()));
  write(0, StoreWatch::mostFiles);
  EXPECT_EQ(reports(), std::vector<std::string>{});
  elsewhere.write("one more", "");
  std::filesystem::rename(elsewhere.file("one more"), folder_.file("one more"));
  EXPECT_EQ(reports().size(), 1U);
}

TEST_F(StoreWatchTest, ReportsAgainUntilThereIsRoom) {
  ASSERT_TRUE(watch_.add(service, folder_.path(), geteuid()));
  write(0, StoreWatch::mostFiles + 1);
  EXPECT_FALSE(reports().empty());
  folder_.write("another", "");
  EXPECT_FALSE(reports().empty());
  std::filesystem::remove(folder_.file("another"));
  std::filesystem::remove(folder_.file("0"));
  std::filesystem::remove(folder_.file("1"));
  write(0, 1);
  EXPECT_EQ(reports(), std::vector<std::string>{});
}

TEST_F(StoreWatchTest, KeepsStoresApart) {
  const lm::test::TempDir other;
  ASSERT_TRUE(watch_.add(service, folder_.path(), geteuid()));
  ASSERT_TRUE(watch_.add(service + 1, other.path(), geteuid()));
  write(0, StoreWatch::mostFiles);
  other.write("file", "");
  EXPECT_EQ(reports(), std::vector<std::string>{});
}

TEST_F(StoreWatchTest, NamesAStoreThatIsNotThere) {
  EXPECT_EQ(whyNot(watch_.add(service, "/nowhere/store", geteuid())),
            "/nowhere/store: No such file or directory");
}

}  // namespace
}  // namespace lumen
