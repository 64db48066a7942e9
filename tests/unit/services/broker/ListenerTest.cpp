#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <filesystem>
#include <iterator>
#include <thread>

#include "lumen/services/broker/Listener.h"
#include "lumen/services/broker/Peer.h"
#include "services/broker/BrokerFixture.h"
#include "support/RefusedCall.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lumen::test {
namespace {

using namespace std::chrono_literals;

class ListenerTest : public BrokerTest {
 protected:
  [[nodiscard]] std::string path() const { return folder_.file("lumen.sock"); }

  void listens() { ASSERT_EQ(whyNot(listener_.listen(path())), ""); }

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

  lm::test::TempDir folder_;
  Listener listener_{broker};
};

// Promise: Every user may open the socket. It replaces one that was left there, and is removed when
// lumend ends normally.
TEST_F(ListenerTest, IsOpenToAllUsersAndRemovesItsSocketAtItsEnd) {
  {
    Listener listener(broker);
    ASSERT_EQ(whyNot(listener.listen(path())), "");
    struct stat info = {};
    ASSERT_EQ(stat(path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0666U);
    EXPECT_TRUE(connectTo().valid());
  }
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(ListenerTest, ReplacesASocketThatWasLeftThere) {
  folder_.write("lumen.sock", "left");
  listens();
  EXPECT_TRUE(connectTo().valid());
}

// Promise: When the socket cannot be made, its path and the system's error text are reported.
TEST_F(ListenerTest, ReportsWhyItCannotListen) {
  Listener listener(broker);
  EXPECT_EQ(whyNot(listener.listen("/nowhere/lumen.sock")),
            "/nowhere/lumen.sock: No such file or directory");
  const std::string tooLong = "/" + std::string(200, 'x');
  EXPECT_EQ(whyNot(listener.listen(tooLong)), tooLong + ": File name too long");
}

TEST_F(ListenerTest, ReportsWhatTheSystemRefuses) {
  for (const int call : {SCMP_SYS(socket), SCMP_SYS(bind), SCMP_SYS(chmod), SCMP_SYS(listen)}) {
    whileRefused({call}, EACCES, [&] {
      Listener listener(broker);
      EXPECT_EQ(whyNot(listener.listen(path())), path() + ": Permission denied");
    });
  }
}

// Promise: A program that cannot be accepted waits, one whose user the kernel does not report is
// refused, and others are accepted.
TEST_F(ListenerTest, ContinuesAfterAClientThatCouldNotBeAccepted) {
  listens();
  Program first(connectTo());
  testing::internal::CaptureStdout();
  whileRefused({SCMP_SYS(accept4)}, EMFILE, [&] { settle(1); });
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "accept: Too many open files\n");
  EXPECT_FALSE(first.isDisconnected()) << "still waits";
  whileRefused({SCMP_SYS(getsockopt), SOL_SOCKET, SO_PEERCRED}, EPERM, [&] { settle(1); });
  EXPECT_TRUE(first.isDisconnected()) << "its user is unknown";
  Program second(connectTo());
  settle(1);
  EXPECT_EQ(second.isDisconnected(), getuid() != 0);
}

// Promise: All programs that wait to be connected are accepted, or refused, at once.
TEST_F(ListenerTest, AcceptsAllWaitingClients) {
  listens();
  std::vector<Program> programs;
  constexpr size_t many = 20;
  programs.reserve(many);
  for (size_t i = 0; i < many; ++i) programs.emplace_back(connectTo());
  settle(many);
  // The tests may run as a user who may not connect: either way all are answered at once.
  const bool refused = programs[0].isDisconnected();
  for (Program& program : programs) EXPECT_EQ(program.isDisconnected(), refused);
  EXPECT_EQ(refused, getuid() != 0);
}

// Promise: A user who is refused again and again does not block the platform's socket.
TEST_F(ListenerTest, IsNotPausedWhileItRefusesClients) {
  listens();
  whileRefused({SCMP_SYS(getsockopt), SOL_SOCKET, SO_PEERCRED}, EPERM, [&] {
    std::deque<Program> waiting;
    for (int i = 0; i < 20; ++i) waiting.emplace_back(connectTo());
    for (Program& program : waiting) {
      settle(1);
      EXPECT_TRUE(program.isDisconnected());
    }
  });
}

TEST_F(ListenerTest, IsPausedWhileNoClientCanBeAccepted) {
  listens();
  Program program(connectTo());
  testing::internal::CaptureStdout();
  whileRefused({SCMP_SYS(accept4)}, EMFILE, [&] { settle(20); });
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "accept: Too many open files\naccept: Too many open files\n");
  EXPECT_EQ(loop.nextDue(), clock.now() + 100ms);
}

/// Who is at the other end of a connection that the calling thread has made.
std::optional<Peer> connectedPeer() {
  int ends[2] = {-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  const lm::Fd one(ends[0]);
  const lm::Fd other(ends[1]);
  return readPeer(one.get());
}

// Promise: A connection belongs to the process, the user, the primary group and all other groups of
// the program that made it.
TEST(PeerTest, IsTheProcessThatConnected) {
  const std::optional<Peer> peer = connectedPeer();
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->pid, getpid());
  EXPECT_EQ(peer->user, getuid());
  std::vector<gid_t> expected(static_cast<size_t>(getgroups(0, nullptr)));
  ASSERT_EQ(getgroups(static_cast<int>(expected.size()), expected.data()),
            static_cast<int>(expected.size()));
  expected.insert(expected.begin(), getgid());
  EXPECT_EQ(peer->groups, expected);
}

TEST(PeerTest, HasAllItsGroups) {
  std::thread([] {
    const gid_t groups[] = {100, 4711, 900};
    // In a namespace of users even root may not.
    if (syscall(SYS_setgroups, std::size(groups), groups) != 0) {
      GTEST_SKIP() << "needs the right to change groups: run it as root";
    }
    const std::optional<Peer> peer = connectedPeer();
    ASSERT_TRUE(peer);
    std::vector<gid_t> found = peer->groups;
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (std::vector<gid_t>{getgid(), 100, 900, 4711}));
  }).join();
}

TEST(PeerTest, IsNoneForADescriptorThatIsNoSocket) { EXPECT_FALSE(readPeer(-1)); }

}  // namespace
}  // namespace lumen::test
