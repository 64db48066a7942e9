#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>

#include "lumen/ctl/router/SocketClient.h"
#include "lumen/runtime/Codec.h"
#include "platform/Fd.h"
#include "platform/Keys.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lumenctl {
namespace {

using namespace std::chrono_literals;

/// A platform that listens in a folder of its own, as lumend --root does.
class SocketClientTest : public testing::Test {
 protected:
  SocketClientTest() { root_.makeDirectory("run"); }

  void listens() {
    listener_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path_.size(), sizeof address.sun_path);
    path_.copy(address.sun_path, path_.size());
    ASSERT_EQ(bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    ASSERT_EQ(listen(listener_.get(), 1), 0);
  }

  /// The client at the other end of platform_.
  std::unique_ptr<Client> connects() {
    listens();
    auto client = SocketClient::connect(root_.path());
    if (!client) {
      ADD_FAILURE() << client.why();
      return nullptr;
    }
    platform_.reset(accept(listener_.get(), nullptr, nullptr));
    return std::move(*client);
  }

  void sends(const lm::message& m) const {
    const std::string bytes = lm::encode(m);
    EXPECT_EQ(send(platform_.get(), bytes.data(), bytes.size(), 0),
              static_cast<ssize_t>(bytes.size()));
  }
  void notifies(uint32_t command) const {
    lm::message notification;
    notification.insert_u32(lm::key::command, command);
    notification.insert_u32_array(lm::key::source, {20, 0});
    sends(notification);
  }
  [[nodiscard]] lm::message hears() const {
    std::string bytes(lm::maxDatagram, '\0');
    const ssize_t length = recv(platform_.get(), bytes.data(), bytes.size(), 0);
    const auto m = lm::decode(std::string_view(bytes).substr(0, static_cast<size_t>(length)));
    return m ? *m : lm::message();
  }

  /// With 7 in field 1.
  void answers(const lm::message& request) const {
    lm::message reply;
    reply.insert_bool(lm::key::isReply, true);
    reply.insert_u32(lm::key::serial, request.get_u32(lm::key::serial));
    reply.insert_u32(1, 7);
    sends(reply);
  }

  lm::test::TempDir root_;
  const std::string path_ = root_.file("run/lumen.sock");
  lm::Fd listener_;
  lm::Fd platform_;
};

/// What answers() puts in field 1; 0: there is no reply.
uint32_t valueIn(const lumen::Result<lm::message>& reply) { return reply ? reply->get_u32(1) : 0; }

/// 0: there was none.
uint32_t commandOf(const lumen::Result<std::optional<lm::message>>& notification) {
  return notification && *notification ? (*notification)->get_u32(lm::key::command) : 0;
}

/// Whether the wait ended since the program is to end.
bool isEnd(const lumen::Result<std::optional<lm::message>>& notification) {
  return notification && !*notification;
}

bool takesPending(int signal) {
  sigset_t wanted;
  sigemptyset(&wanted);
  sigaddset(&wanted, signal);
  const timespec now = {};
  return sigtimedwait(&wanted, nullptr, &now) == signal;
}

TEST_F(SocketClientTest, SaysWhereLumendDoesNotAnswer) {
  auto client = SocketClient::connect(root_.path());
  ASSERT_FALSE(client);
  EXPECT_EQ(client.why(), "lumend does not answer (" + path_ + ": No such file or directory)");
  listens();
  listener_.reset();
  client = SocketClient::connect(root_.path());
  ASSERT_FALSE(client);
  EXPECT_EQ(client.why(), "lumend does not answer (" + path_ + ": Connection refused)");
}

// Also proves [ctl-wait].
TEST_F(SocketClientTest, TakesTheReplyToItsRequest) {
  const auto client = connects();
  lm::message request;
  std::thread platform([&] {
    request = hears();
    answers(request);
  });
  EXPECT_EQ(valueIn(client->exchange({20, 5}, lm::cmd::list, {}, 15s)), 7U);
  platform.join();
  EXPECT_EQ(request.get_u32_array_ref(lm::key::destination), (std::vector<uint32_t>{20, 5}));
  EXPECT_EQ(request.get_u32(lm::key::command), lm::cmd::list);
}

TEST_F(SocketClientTest, SaysWhoMayConnectWhenTheConnectionEndsUnanswered) {
  const auto client = connects();
  platform_.reset();
  const auto reply = client->exchange({20, 5}, lm::cmd::list, {}, 15s);
  ASSERT_TRUE(reply) << "a refusal";
  EXPECT_EQ(lm::getError(*reply), "connection ended: lumend answers root and the group lumen only");
}

TEST_F(SocketClientTest, FailsWhenThePlatformEndsAfterAnAnswer) {
  const auto client = connects();
  std::thread platform([&] { answers(hears()); });
  EXPECT_EQ(valueIn(client->exchange({20, 5}, lm::cmd::list, {}, 15s)), 7U);
  platform.join();
  platform_.reset();
  EXPECT_EQ(lumen::whyNot(client->exchange({20, 5}, lm::cmd::list, {}, 15s)), "connection ended");
}

TEST_F(SocketClientTest, WaitsNoLongerThanItsLimit) {
  const auto client = connects();
  EXPECT_EQ(lumen::whyNot(client->exchange({20, 5}, lm::cmd::list, {}, 1ms)), "no answer in time");
}

// Also proves [ctl-monitor-end].
TEST_F(SocketClientTest, TakesNotificationsInOrderUntilThePlatformEnds) {
  const auto client = connects();
  notifies(1);
  notifies(2);
  platform_.reset();
  EXPECT_EQ(commandOf(client->notification()), 1U);
  EXPECT_EQ(commandOf(client->notification()), 2U);
  const auto last = client->notification();
  ASSERT_FALSE(last);
  EXPECT_EQ(last.why(), "the platform has ended the connection");
}

// Also proves [ctl-monitor-end].
TEST_F(SocketClientTest, StopsWaitingOnASignalToEnd) {
  for (const int signal : {SIGTERM, SIGINT}) {
    const auto client = connects();
    notifies(1);
    EXPECT_EQ(commandOf(client->notification()), 1U);
    raise(signal);
    notifies(2);
    EXPECT_TRUE(isEnd(client->notification())) << "although another notification waits";
    EXPECT_TRUE(takesPending(signal));
    unlink(path_.c_str());
  }
}

// Also proves [ctl-monitor-output].
TEST_F(SocketClientTest, StopsWaitingWhenItsOutputHasNoReader) {
  const auto client = connects();
  int ends[2] = {-1, -1};
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  fflush(stdout);
  const lm::Fd output(dup(STDOUT_FILENO));
  dup2(ends[1], STDOUT_FILENO);
  close(ends[1]);
  close(ends[0]);
  const auto end = client->notification();
  dup2(output.get(), STDOUT_FILENO);
  EXPECT_TRUE(isEnd(end));
}

}  // namespace
}  // namespace lumenctl
