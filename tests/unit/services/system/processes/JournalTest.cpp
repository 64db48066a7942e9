#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "lumen/services/system/processes/Journal.h"
#include "support/Sockets.h"
#include "support/TempDir.h"

namespace lumen {
namespace {

/// The other side: a journal's stream socket.
class JournalTest : public testing::Test {
 protected:
  void journalListens() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    folder.file("stdout").copy(address.sun_path, sizeof address.sun_path - 1);
    listener.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener.get(), 1), 0);
  }

  std::string kept() {
    const lm::Fd stream(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    return lm::test::readAvailable(stream.get());
  }

  lm::test::TempDir folder;
  lm::Fd listener;
};

// Promise: The lines of each program bear its name in the journal.
TEST_F(JournalTest, KeepsWhatIsWrittenUnderTheIdentifier) {
  journalListens();
  const lm::Fd stream = journal::open("palinode-igd", folder.file("stdout"));
  ASSERT_TRUE(stream.valid());
  ASSERT_TRUE(lm::test::writeText(stream.get(), "enable\n"));
  // Identifier, no unit, priority "info" of syslog(3), and four switches that are off.
  EXPECT_EQ(kept(), "palinode-igd\n\n6\n0\n0\n0\n0\nenable\n");
}

TEST_F(JournalTest, MayBeAbsent) {
  EXPECT_FALSE(journal::open("palinode-igd", folder.file("stdout")).valid());
  EXPECT_FALSE(journal::open("palinode-igd", std::string(200, 'x')).valid());
}

TEST_F(JournalTest, IsWhereThisProcessWritesWhenTheVariableNamesThatFile) {
  const lm::test::SocketPair pair(SOCK_STREAM);
  struct stat info = {};
  ASSERT_EQ(fstat(pair.ours.get(), &info), 0);
  const std::string named = std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
  EXPECT_TRUE(journal::isStream(pair.ours.get(), named.c_str()));
  EXPECT_FALSE(journal::isStream(pair.peer.get(), named.c_str()));
  EXPECT_FALSE(journal::isStream(pair.ours.get(), nullptr));
  EXPECT_FALSE(journal::isStream(-1, named.c_str()));
}

}  // namespace
}  // namespace lumen
