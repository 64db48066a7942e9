#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <vector>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/system/processes/ServiceManager.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

using Messages = std::vector<std::string>;

/// The other side: a service manager's datagram socket.
class ServiceManagerTest : public testing::Test {
 public:
  ~ServiceManagerTest() override {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
  }

 protected:
  /// `name` is a path, or begins with "@".
  void managerListensAt(const std::string& name) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    socklen_t length = sizeof address;
    if (name.front() == '@') {
      address.sun_path[0] = '\0';
      length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    }
    manager.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ASSERT_EQ(bind(manager.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
  }

  Messages received() {
    Messages found;
    char text[256];
    for (ssize_t size = 0; (size = recv(manager.get(), text, sizeof text, 0)) > 0;) {
      found.emplace_back(text, static_cast<size_t>(size));
    }
    return found;
  }

  void pass(std::chrono::milliseconds time) {
    clock.advance(time);
    loop.turn(0ms);
  }

  lm::test::TempDir folder;
  lm::test::ManualClock clock;
  lm::EventLoop loop{clock};
  lm::Fd manager;
};

// Promise [ready]: The program that started lumend receives `READY=1` when the start is done, at
// the socket that `NOTIFY_SOCKET` names, a path or an abstract name.
// Promise: lumend reports to systemd that it is ready, and twice in each watchdog interval that its
// loop turns.
TEST_F(ServiceManagerTest, IsNotifiedWhenTheStartIsDone) {
  managerListensAt(folder.file("notify"));
  ServiceManager ours(folder.file("notify"), 0s);
  EXPECT_EQ(received(), Messages());
  ours.ready();
  EXPECT_EQ(received(), Messages{"READY=1"});
  pass(3600s);
  EXPECT_EQ(received(), Messages()) << "without a watchdog";
}

// Promise [watchdog]: The program that started lumend receives `WATCHDOG=1` twice in the time that
// `WATCHDOG_USEC` gives, unless `WATCHDOG_PID` is another process.
TEST_F(ServiceManagerTest, GetsASignOfLifeTwiceInEachWatchdogInterval) {
  managerListensAt(folder.file("notify"));
  ServiceManager ours(folder.file("notify"), 30s);
  ours.ready();
  EXPECT_EQ(received(), (Messages{"READY=1", "WATCHDOG=1"}));
  pass(14'990ms);
  EXPECT_EQ(received(), Messages());
  pass(10ms);
  EXPECT_EQ(received(), Messages{"WATCHDOG=1"});
  pass(15s);
  EXPECT_EQ(received(), Messages{"WATCHDOG=1"});
}

// Also proves [ready].
TEST_F(ServiceManagerTest, MayListenAtAnAbstractName) {
  const std::string name = "@palinode-test-" + std::to_string(getpid());
  managerListensAt(name);
  ServiceManager ours(name, 0s);
  ours.ready();
  EXPECT_EQ(received(), Messages{"READY=1"});
}

// Also proves [ready].
TEST_F(ServiceManagerTest, IsFoundInTheEnvironment) {
  managerListensAt(folder.file("notify"));
  setenv("NOTIFY_SOCKET", folder.file("notify").c_str(), 1);
  setenv("WATCHDOG_USEC", "2000000", 1);
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  ServiceManager ours = ServiceManager::ofThisProcess();
  ours.ready();
  pass(1s);
  EXPECT_EQ(received(), (Messages{"READY=1", "WATCHDOG=1", "WATCHDOG=1"}));
}

// Also proves [watchdog].
TEST_F(ServiceManagerTest, MayWatchOverAnotherProcessOfTheService) {
  managerListensAt(folder.file("notify"));
  setenv("NOTIFY_SOCKET", folder.file("notify").c_str(), 1);
  setenv("WATCHDOG_USEC", "2000000", 1);
  setenv("WATCHDOG_PID", "1", 1);
  ServiceManager ours = ServiceManager::ofThisProcess();
  ours.ready();
  EXPECT_EQ(received(), Messages{"READY=1"});
}

// Promise: lumend works the same without such a program, and with one that has gone or does not
// read.
TEST_F(ServiceManagerTest, IsNotNeeded) {
  ServiceManager none = ServiceManager::ofThisProcess();
  none.ready();
  ServiceManager gone(folder.file("nobody"), 2s);
  gone.ready();
  ServiceManager unreachable(std::string(200, 'x'), 2s);
  unreachable.ready();
  pass(1s);
  EXPECT_EQ(loop.nextDue(), clock.now() + 1s) << "tries again";
}

// Promise: A service manager that does not read blocks nothing.
TEST_F(ServiceManagerTest, ThatDoesNotReadDelaysNothing) {
  managerListensAt(folder.file("notify"));
  ServiceManager ours(folder.file("notify"), 20ms);
  ours.ready();
  for (int times = 0; times < 2000; ++times) pass(10ms);
  const Messages heard = received();
  ASSERT_FALSE(heard.empty());
  EXPECT_LT(heard.size(), 2000U) << "its queue was never full";
}

}  // namespace
}  // namespace lumen
