#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "lumen/runtime/Codec.h"
#include "lumen/runtime/RecordDirectory.h"
#include "platform/Keys.h"
#include "platform/Store.h"
#include "support/Describe.h"
#include "support/LogCapture.h"
#include "support/RefusedCall.h"
#include "support/TempDir.h"

namespace lm {
namespace {

using Names = std::vector<std::string>;

/// While it lives, files cannot grow beyond `bytes`: it simulates a full disk.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &usual_);
    const rlimit limit{bytes, usual_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;
  ~FullDisk() { setrlimit(RLIMIT_FSIZE, &usual_); }

 private:
  rlimit usual_{};
};

class StoreOnDisk : public testing::Test {
 protected:
  static message settings(bool enabled) {
    message m;
    m.insert_bool(1, enabled);
    m.insert_string(2, std::string(100, 'x'));
    return m;
  }

  test::TempDir dir_;
  Store store_{dir_.path(), 5};
};

TEST_F(StoreOnDisk, HasNoRecordAtFirst) { EXPECT_FALSE(store_.get(0)); }

// Promise [record-file]: A stored record is a file with the record's number as its name and the
// encoded message as its content.
TEST_F(StoreOnDisk, KeepsARecordForTheNextProgram) {
  EXPECT_TRUE(store_.set(0, settings(true)));
  EXPECT_EQ(Store(dir_.path(), 5).get(0), settings(true));
  EXPECT_EQ(dir_.names(), Names{"0"});
  EXPECT_EQ(dir_.read("0"), encode(settings(true)));
}

// Promise [record-replace]: A record is replaced as a whole: on a full disk the old one stays, and
// the log says why.
TEST_F(StoreOnDisk, ReplacesARecordAsAWhole) {
  EXPECT_TRUE(store_.set(0, settings(true)));
  message shorter;
  shorter.insert_bool(3, true);
  EXPECT_TRUE(store_.set(0, shorter));
  EXPECT_EQ(store_.get(0), shorter);
}

// Also proves [record-file].
TEST_F(StoreOnDisk, KeepsRecordsApart) {
  EXPECT_TRUE(store_.set(0, settings(true)));
  EXPECT_TRUE(store_.set(4, settings(false)));
  EXPECT_EQ(store_.get(0), settings(true));
  EXPECT_EQ(store_.get(4), settings(false));
}

// Promise: A record number at or above a store's limit is refused, and one outside a map's ids is
// not loaded.
TEST_F(StoreOnDisk, RefusesANumberBeyondItsLimit) {
  EXPECT_FALSE(store_.set(5, settings(true)));
  EXPECT_FALSE(store_.get(5));
  EXPECT_EQ(dir_.names(), Names{});
}

// Promise: Records hold no transport fields.
TEST_F(StoreOnDisk, KeepsNoTransportFields) {
  message request = settings(true);
  request.insert_u32_array(key::destination, {40, 0});
  request.insert_u32_array(key::source, {0x10001, 0});
  request.insert_u32(key::serial, 7);
  request.insert_u32(key::command, cmd::set);
  EXPECT_TRUE(store_.set(0, request));
  EXPECT_EQ(store_.get(0), settings(true));
}

// Promise: An empty message is a record like any other, and an absent one is none.
TEST_F(StoreOnDisk, KeepsAnEmptyMessage) {
  EXPECT_TRUE(store_.set(0, message()));
  EXPECT_EQ(store_.get(0), message());
}

// Promise: A record that does not decode is set aside as `0.broken`, reported with the reason, and
// does not stop the start.
TEST_F(StoreOnDisk, SetsABrokenRecordAsideAndLogsIt) {
  dir_.write("0", "not a message");
  const test::LogCapture log;
  EXPECT_FALSE(store_.get(0));
  EXPECT_NE(log.text().find(dir_.file("0") + " is broken (unknown type: 0x6e6f7420)"),
            std::string::npos)
      << log.text();
  EXPECT_EQ(dir_.names(), Names{"0.broken"});
  EXPECT_EQ(dir_.read("0.broken"), "not a message");
  EXPECT_TRUE(store_.set(0, settings(true)));
  EXPECT_EQ(store_.get(0), settings(true));
}

TEST_F(StoreOnDisk, SetsARecordThatIsTooLongAside) {
  dir_.write("0", std::string(maxDatagram + 1, '\0'));
  EXPECT_FALSE(store_.get(0));
  EXPECT_EQ(dir_.names(), Names{"0.broken"});
}

TEST_F(StoreOnDisk, DoesNotBlockOnAPipeInPlaceOfARecord) {
  ASSERT_EQ(mkfifo(dir_.file("0").c_str(), 0600), 0);
  EXPECT_EQ(store_.get(0), message()) << "there is nothing in it";
}

// Promise: A record longer than a datagram is not written, and set aside when it is found.
TEST_F(StoreOnDisk, RefusesARecordThatIsTooLong) {
  message m;
  m.insert_string(1, std::string(maxDatagram, 'x'));
  EXPECT_FALSE(store_.set(0, m));
  EXPECT_EQ(dir_.names(), Names{});
}

// Also proves [record-replace].
TEST_F(StoreOnDisk, KeepsTheOldRecordWhenTheDiskIsFull) {
  EXPECT_TRUE(store_.set(0, settings(true)));
  {
    const FullDisk full(10);
    const test::LogCapture log;
    EXPECT_FALSE(store_.set(0, settings(false)));
    EXPECT_NE(log.text().find("File too large"), std::string::npos) << log.text();
  }
  EXPECT_EQ(store_.get(0), settings(true));
  EXPECT_EQ(dir_.names(), Names{"0"});
}

// Promise: A record that cannot be read is set aside as well, so that no later write ends it, and
// one that cannot be set aside is reported.
TEST_F(StoreOnDisk, SetsAnUnreadableRecordAside) {
  const auto refuses = [this](int call, int error) {
    EXPECT_TRUE(store_.set(0, settings(true)));
    const test::LogCapture log;
    whileRefused({call}, error, [&] { EXPECT_FALSE(store_.get(0)); });
    EXPECT_EQ(log.text(), "store: " + dir_.file("0") + " is broken (" + strerror(error) +
                              "), kept as " + dir_.file("0.broken") + "\n");
    EXPECT_EQ(dir_.names(), Names{"0.broken"});
    EXPECT_EQ(dir_.read("0.broken"), encode(settings(true)));
  };
  refuses(SCMP_SYS(openat), EACCES);
  refuses(SCMP_SYS(read), EIO);
}

TEST_F(StoreOnDisk, OverwritesNothingThatItCannotRead) {
  EXPECT_TRUE(store_.set(0, settings(true)));
  whileRefused({SCMP_SYS(openat)}, EMFILE, [&] { EXPECT_FALSE(store_.get(0)); });
  EXPECT_TRUE(store_.set(0, settings(false)));
  EXPECT_EQ(dir_.names(), (Names{"0", "0.broken"}));
  EXPECT_EQ(dir_.read("0.broken"), encode(settings(true)));
}

// Also proves [record-replace].
TEST_F(StoreOnDisk, RefusesARecordThatMightNotSurviveAPowerFailure) {
  const test::LogCapture log;
  whileRefused({SCMP_SYS(fsync)}, EIO, [&] { EXPECT_FALSE(store_.set(0, settings(true))); });
  EXPECT_EQ(log.text(), "store: " + dir_.file("0.new") + ": " + strerror(EIO) + "\n");
  EXPECT_EQ(dir_.names(), Names{});
}

TEST_F(StoreOnDisk, LogsThatABrokenRecordCannotBeSetAside) {
  dir_.write("0", "not a message");
  const test::LogCapture log;
  whileRefused({SCMP_SYS(rename)}, EACCES, [&] { EXPECT_FALSE(store_.get(0)); });
  EXPECT_TRUE(log.text().ends_with("store: " + dir_.file("0.broken") + ": Permission denied\n"))
      << log.text();
  EXPECT_EQ(dir_.names(), Names{"0"});
}

// Promise: A store whose directory is missing has no records and refuses to write.
TEST(StoreWithoutDirectory, HasNoRecordsAndRefusesToWrite) {
  const test::TempDir dir;
  Store store(dir.file("missing"), 5);
  EXPECT_FALSE(store.get(0));
  EXPECT_FALSE(store.set(0, message()));
}

class Records : public testing::Test {
 protected:
  static message record(uint32_t value) {
    message m;
    m.insert_u32(1, value);
    return m;
  }

  test::TempDir dir_;
  RecordDirectory records_{dir_.path()};
};

// Also proves [record-replace].
TEST_F(Records, APreparedOneTakesItsPlaceAtTheCommit) {
  records_.prepare(7, record(1))->commit();
  auto pending = records_.prepare(7, record(2));
  ASSERT_TRUE(pending);
  EXPECT_EQ(dir_.names(), (Names{"7", "7.new"}));
  EXPECT_EQ(records_.read(7), record(1));
  EXPECT_TRUE(pending->commit());
  EXPECT_EQ(dir_.names(), Names{"7"});
  EXPECT_EQ(records_.read(7), record(2));
}

// Also proves [record-replace].
TEST_F(Records, APreparedOneThatIsNotCommittedLeavesNothing) {
  records_.prepare(7, record(1))->commit();
  records_.prepare(7, record(2)).reset();
  EXPECT_EQ(dir_.names(), Names{"7"});
  EXPECT_EQ(records_.read(7), record(1));
}

// Promise: A record that cannot be put in its place or removed is a reported failure; one that is
// gone already is not.
TEST_F(Records, ACommitThatFailsIsReported) {
  auto pending = records_.prepare(7, record(1));
  dir_.makeDirectory("7");
  EXPECT_FALSE(pending->commit());
  pending.reset();
  EXPECT_EQ(dir_.names(), Names{"7"});
}

TEST_F(Records, AreInTheirPlaceAlsoWhenTheDirectoryCannotBeSynced) {
  auto pending = records_.prepare(7, record(1));
  const test::LogCapture log;
  whileRefused({SCMP_SYS(fsync)}, EIO, [&] { EXPECT_TRUE(pending->commit()); });
  EXPECT_EQ(records_.read(7), record(1));
  whileRefused({SCMP_SYS(fsync)}, EIO, [&] { EXPECT_TRUE(records_.remove(7)); });
  EXPECT_FALSE(records_.read(7));
  const std::string line = "store: " + dir_.path() + ": " + strerror(EIO) + "\n";
  EXPECT_EQ(log.text(), line + line);
}

TEST_F(Records, ReportThatAPreparedOneCannotBeRemoved) {
  auto pending = records_.prepare(7, record(1));
  const test::LogCapture log;
  whileRefused({SCMP_SYS(unlink)}, EACCES, [&] { pending.reset(); });
  EXPECT_EQ(log.text(), "store: " + dir_.file("7.new") + ": Permission denied\n");
}

// Promise: Records are read in rising order of their numbers.
TEST_F(Records, AreListedByRisingNumber) {
  for (uint32_t number : {10U, 9U, 4294967294U, 0U}) records_.prepare(number, record(1))->commit();
  EXPECT_EQ(records_.numbers(), (std::vector<uint32_t>{0, 9, 10, 4294967294}));
}

// Promise: Files in a store's directory that are no records are left alone, and a pipe in place of
// a record blocks no program.
TEST_F(Records, OtherFilesAreLeftAlone) {
  for (const char* name : {"readme", "01", "-1", "4294967296", "7.broken", "x.new", "7x"}) {
    dir_.write(name, "x");
  }
  EXPECT_TRUE(records_.numbers().empty());
  EXPECT_EQ(dir_.names().size(), 7U);
}

// Promise: What an interrupted write left is removed at the next start.
TEST_F(Records, WhatAnInterruptedWriteLeftIsRemoved) {
  records_.prepare(7, record(1))->commit();
  dir_.write("7.new", "half");
  EXPECT_EQ(records_.numbers(), std::vector<uint32_t>{7});
  EXPECT_EQ(dir_.names(), Names{"7"});
}

TEST_F(Records, APreparedRemovalIsUndoneWithoutACommit) {
  records_.prepare(7, record(1))->commit();
  auto pending = records_.prepareRemoval(7);
  ASSERT_TRUE(pending);
  EXPECT_FALSE(records_.read(7));
  pending.reset();
  EXPECT_EQ(dir_.names(), Names{"7"});
  EXPECT_EQ(records_.read(7), record(1));
  EXPECT_TRUE(records_.prepareRemoval(7)->commit());
  EXPECT_EQ(dir_.names(), Names{});
}

TEST_F(Records, ACommittedRemovalHoldsAlsoWhenTheFileStays) {
  records_.prepare(7, record(1))->commit();
  auto pending = records_.prepareRemoval(7);
  const test::LogCapture log;
  whileRefused({SCMP_SYS(unlink)}, EROFS, [&] {
    EXPECT_FALSE(pending->commit());
    pending.reset();
  });
  const std::string line = "store: " + dir_.file("7.new") + ": Read-only file system\n";
  EXPECT_EQ(log.text(), line + line);
  EXPECT_EQ(dir_.names(), Names{"7.new"});
  EXPECT_TRUE(records_.numbers().empty());
  EXPECT_EQ(dir_.names(), Names{});
}

TEST_F(Records, ARemovalThatTheDiskRefusesLeavesTheRecord) {
  records_.prepare(7, record(1))->commit();
  const test::LogCapture log;
  whileRefused({SCMP_SYS(rename)}, EROFS, [&] { EXPECT_FALSE(records_.prepareRemoval(7)); });
  EXPECT_EQ(log.text(), "store: " + dir_.file("7") + ": Read-only file system\n");
  EXPECT_EQ(records_.read(7), record(1));
}

TEST_F(Records, ARemovalOfNoneIsPrepared) {
  const auto pending = records_.prepareRemoval(7);
  ASSERT_TRUE(pending);
  EXPECT_TRUE(pending->commit());
  EXPECT_EQ(dir_.names(), Names{});
}

TEST_F(Records, RemovalSucceedsWhenThereIsNone) {
  records_.prepare(7, record(1))->commit();
  EXPECT_TRUE(records_.remove(7));
  EXPECT_TRUE(records_.remove(7));
  EXPECT_EQ(dir_.names(), Names{});
}

TEST_F(Records, ARemovalThatFailsIsReported) {
  dir_.makeDirectory("7");
  EXPECT_FALSE(records_.remove(7));
}

}  // namespace
}  // namespace lm
