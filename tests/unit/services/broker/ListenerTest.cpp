#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "lumen/services/broker/Listener.h"
#include "lumen/services/broker/Peer.h"
#include "services/broker/BrokerFixture.h"

namespace lumen::test {
namespace {

class ListenerTest : public BrokerTest {
 public:
  ~ListenerTest() override { std::filesystem::remove_all(folder_); }

 protected:
  ListenerTest() { EXPECT_NE(mkdtemp(folder_.data()), nullptr); }

  [[nodiscard]] std::string path() const { return folder_ + "/lumen.sock"; }

  [[nodiscard]] lm::Fd connectTo() const {
    lm::Fd client(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path().c_str(), sizeof address.sun_path - 1);
    const int result =
        ::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (result != 0) client.reset();
    return client;
  }

  std::string folder_ = testing::TempDir() + "runXXXXXX";
};

TEST_F(ListenerTest, IsOpenToEverybodyAndGoesAtItsEnd) {
  {
    Listener listener(broker);
    ASSERT_EQ(listener.listen(path()), "");
    struct stat info = {};
    ASSERT_EQ(stat(path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0666U);
    EXPECT_TRUE(connectTo().valid());
  }
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(ListenerTest, TakesThePlaceOfASocketThatWasLeft) {
  std::ofstream(path()) << "left";
  Listener listener(broker);
  ASSERT_EQ(listener.listen(path()), "");
  EXPECT_TRUE(connectTo().valid());
}

TEST_F(ListenerTest, SaysWhyItCannot) {
  Listener listener(broker);
  EXPECT_EQ(listener.listen("/nowhere/lumen.sock"),
            "/nowhere/lumen.sock: No such file or directory");
  const std::string tooLong = "/" + std::string(200, 'x');
  EXPECT_EQ(listener.listen(tooLong), tooLong + ": File name too long");
}

TEST_F(ListenerTest, AcceptsAllThatWait) {
  Listener listener(broker);
  ASSERT_EQ(listener.listen(path()), "");
  std::vector<Program> programs;
  constexpr size_t many = 20;
  programs.reserve(many);
  for (size_t i = 0; i < many; ++i) programs.emplace_back(connectTo());
  settle(1);
  // The tests run as somebody who may connect or may not; each is told at once.
  const bool refused = programs[0].isDisconnected();
  for (Program& program : programs) EXPECT_EQ(program.isDisconnected(), refused);
  EXPECT_EQ(refused, getuid() != 0);
}

TEST(PeerTest, IsWhoConnected) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  const lm::Fd one(ends[0]);
  const lm::Fd other(ends[1]);
  const std::optional<Peer> peer = readPeer(one.get());
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->pid, getpid());
  EXPECT_EQ(peer->user, getuid());
  std::vector<gid_t> expected(static_cast<size_t>(getgroups(0, nullptr)));
  ASSERT_EQ(getgroups(static_cast<int>(expected.size()), expected.data()),
            static_cast<int>(expected.size()));
  expected.insert(expected.begin(), getgid());
  EXPECT_EQ(peer->groups, expected);
}

TEST(PeerTest, IsNobodyForWhatIsNoSocket) { EXPECT_FALSE(readPeer(-1)); }

}  // namespace
}  // namespace lumen::test
