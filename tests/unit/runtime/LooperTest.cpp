#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <iostream>

#include "lumen/runtime/Codec.h"
#include "lumen/runtime/EventLoop.h"
#include "lumen/runtime/PendingReply.h"
#include "lumen/runtime/Runtime.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/Timer.h"
#include "support/Describe.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace lm {
namespace {

using namespace std::chrono_literals;

using test::contentOf;
using test::describe;
using test::TestPlatform;

message number(uint32_t value) {
  message m;
  m.insert_u32(1, value);
  return m;
}

message requestTo(const test::Path& path) {
  message m;
  m.insert_u32_array(key::destination, path);
  return m;
}

/// In a death test the log is matched.
void showLog() { dup2(STDERR_FILENO, STDOUT_FILENO); }

/// Records its requests and answers with its number.
class Service : public Handler {
 public:
  message dispatch(const message& request, uint32_t command) override {
    heard.push_back(std::to_string(command) + " " + describe(contentOf(request)));
    if (then) then();
    return answers ? number(7) : Handler::dispatch(request, command);
  }

  std::vector<std::string> heard;
  std::function<void()> then;
  bool answers = true;
};

using Heard = std::vector<std::string>;

class LooperTest : public testing::Test {
 protected:
  LooperTest() { looper_.addHandler(0, service_); }

  TestPlatform platform_;
  Looper looper_{platform_.makeRuntime()};
  Service service_;
};

// Promise: A program registers its service number once, with its first handler.
TEST_F(LooperTest, RegistersItsServiceOnce) {
  Service second;
  looper_.addHandler(1, second);
  ASSERT_EQ(platform_.sent().size(), 1U);
  EXPECT_EQ(describe(platform_.sent()[0]),
            "{u32[] 0xff0001=[0], u32[] 0x1=[40], u32[] 0xff0002=[0 4294967295], u32 0xff0003=1, "
            "u32 0xff0007=16}");
}

TEST_F(LooperTest, AnswersARequestToItsHandler) {
  EXPECT_EQ(platform_.request(0, cmd::get, number(1)), number(7));
  EXPECT_EQ(service_.heard, Heard{"16646157 {u32 0x1=1}"});
}

// Promise [path-request]: A request whose path names no handler goes to handler 0.
TEST_F(LooperTest, AnswersARequestToHandlerZeroWhenThePathNamesNone) {
  message m = number(1);
  m.insert_u32_array(key::destination, {40});
  m.insert_u32(key::serial, 9);
  m.insert_u32(key::command, 1);
  platform_.deliverRaw(encode(m));
  platform_.turn();
  EXPECT_EQ(platform_.replyTo(9)->get_u32(1), 7U);
}

// Promise: A request to a handler that does not exist, or no longer, is answered with `no such
// handler`.
TEST_F(LooperTest, AnswersThatThereIsNoSuchHandler) {
  EXPECT_EQ(getError(platform_.request(5, cmd::get)), "no such handler");
}

TEST_F(LooperTest, AHandlerThatHasGoneIsNotAskedAgain) {
  {
    Service second;
    looper_.addHandler(1, second);
    EXPECT_EQ(platform_.request(1, 1), number(7));
  }
  EXPECT_EQ(getError(platform_.request(1, 1)), "no such handler");
}

// Promise: A command that a handler does not know is answered with `unknown command`.
TEST_F(LooperTest, AHandlerRefusesEveryCommandByDefault) {
  service_.answers = false;
  for (uint32_t command : {cmd::list, cmd::get, cmd::set, cmd::addObject, 12345U}) {
    EXPECT_EQ(describe(platform_.request(0, command)),
              "{u32 0xff0008=16646153, string 0xff0009=\"unknown command\"}");
  }
}

// Promise: Requests that arrive before the loop runs are kept for it.
TEST_F(LooperTest, RequestsThatArriveBeforeTheLoopRunsAreKept) {
  const uint32_t serial = platform_.postRequest(0, 1);
  EXPECT_EQ(service_.heard, Heard{});
  platform_.turn();
  EXPECT_TRUE(platform_.replyTo(serial));
}

// Promise: A handler gets the requests with its number in their path, and sends its own under it.
TEST_F(LooperTest, AProgramExchangesWithoutAHandlerNumberAndAHandlerUnderItsOwn) {
  Service third;
  looper_.addHandler(3, third);
  platform_.answer({20, 5}, cmd::addObject, number(9));
  EXPECT_EQ(looper_.exchangeCmd(requestTo({20, 5}), cmd::addObject, 6000).get_u32(1), 9U);
  EXPECT_EQ(third.exchangeCmd(requestTo({20, 5}), cmd::addObject, 6000).get_u32(1), 9U);
  const auto sent = platform_.sentTo({20, 5}, cmd::addObject);
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].get_u32_array_ref(key::source), (test::Path{0, none}));
  EXPECT_EQ(sent[1].get_u32_array_ref(key::source), (test::Path{0, 3}));
}

TEST_F(LooperTest, NothingIsDispatchedFromInsideAnExchange) {
  platform_.onRequest({20, 5}, 1, [this](const message&) {
    platform_.postRequest(0, 2);
    platform_.postRequest(0, 3);
    return message();
  });
  service_.then = [this] {
    if (service_.heard.size() > 1) return;
    (void)service_.exchangeCmd(requestTo({20, 5}), 1, 6000);
    EXPECT_EQ(service_.heard, Heard{"1 {}"});
  };
  platform_.request(0, 1);
  EXPECT_EQ(service_.heard, (Heard{"1 {}", "2 {}", "3 {}"}));
}

TEST_F(LooperTest, TheClockMovesToTheReplyThatAnExchangeWaitsFor) {
  const auto start = platform_.clock().now();
  platform_.answer({20, 5}, 1, number(1));
  platform_.delay({20, 5}, 1, 250ms);
  EXPECT_FALSE(isError(service_.exchangeCmd(requestTo({20, 5}), 1, 6000)));
  EXPECT_EQ(platform_.clock().now() - start, 250ms);
}

// Also proves [exchange-limit], [exchange-late].
TEST_F(LooperTest, AnExchangeGivesUpAtItsLimitAndDropsTheReplyThatComesLater) {
  const auto start = platform_.clock().now();
  platform_.answer({20, 5}, 1, number(1));
  platform_.delay({20, 5}, 1, 7s);
  EXPECT_EQ(getError(service_.exchangeCmd(requestTo({20, 5}), 1, 6000)), "no answer in time");
  EXPECT_EQ(platform_.clock().now() - start, 6s);
  platform_.delay({20, 5}, 1, 0ms);
  platform_.answer({20, 5}, 1, number(2));
  platform_.advance(2s);
  EXPECT_EQ(service_.exchangeCmd(requestTo({20, 5}), 1, 6000).get_u32(1), 2U);
}

TEST_F(LooperTest, AnUnscriptedServiceDoesNotExist) {
  EXPECT_EQ(getError(service_.exchangeCmd(requestTo({99}), 1, 6000)), "no such service");
}

// Promise: A handler that subscribed gets the notifications of that command from that path, and no
// other handler does.
TEST_F(LooperTest, DispatchesNotificationsToSubscribers) {
  Service second;
  looper_.addHandler(1, second);
  platform_.forgetSent();
  service_.subscribe(cmd::changed, {20, 1});
  ASSERT_EQ(platform_.sent().size(), 1U);
  EXPECT_EQ(describe(contentOf(platform_.sent()[0])), "{u32 0x1=16646155, u32[] 0x2=[20 1]}");
  EXPECT_EQ(platform_.sent()[0].get_u32(key::command), 0x11U);

  platform_.notify(cmd::changed, {20, 1}, number(1));
  platform_.notify(cmd::changed, {20, 0}, number(2));
  platform_.notify(cmd::interfaceChanged, {20, 1}, number(3));
  EXPECT_EQ(service_.heard, Heard{"16646155 {u32 0x1=1}"});
  EXPECT_EQ(second.heard, Heard{});
}

TEST_F(LooperTest, SubscriptionsToTwoHandlersOfAServiceAreTwo) {
  Service second;
  looper_.addHandler(1, second);
  platform_.forgetSent();
  service_.subscribe(cmd::changed, {20, 0});
  second.subscribe(cmd::changed, {20, 1});
  ASSERT_EQ(platform_.sent().size(), 2U) << "the broker learns of both";

  platform_.notify(cmd::changed, {20, 0}, number(1));
  platform_.notify(cmd::changed, {20, 1}, number(2));
  EXPECT_EQ(service_.heard, Heard{"16646155 {u32 0x1=1}"});
  EXPECT_EQ(second.heard, Heard{"16646155 {u32 0x1=2}"});
}

TEST_F(LooperTest, UnsubscribesOnlyWhatIsSubscribed) {
  platform_.forgetSent();
  service_.unsubscribe(cmd::changed, {20, 1});
  EXPECT_TRUE(platform_.sent().empty());
  service_.subscribe(cmd::changed, {20, 1});
  service_.subscribe(cmd::changed, {20, 1});
  service_.unsubscribe(cmd::changed, {20, 1});
  ASSERT_EQ(platform_.sent().size(), 2U);
  EXPECT_EQ(platform_.sent()[1].get_u32(key::command), 0x12U);
  EXPECT_EQ(contentOf(platform_.sent()[1]), contentOf(platform_.sent()[0]));
  platform_.notify(cmd::changed, {20, 1});
  EXPECT_EQ(service_.heard, Heard{});
}

// Promise: The broker gets one subscription, however many handlers of a program subscribe, and its
// end when the last one has ended.
TEST_F(LooperTest, SubscribesAtTheBrokerOnceForTwoSubscribers) {
  {
    Service second;
    looper_.addHandler(1, second);
    service_.subscribe(1, {20, 1});
    second.subscribe(1, {20, 1});
    platform_.notify(1, {20, 1});
    EXPECT_EQ(service_.heard.size(), 1U);
    EXPECT_EQ(second.heard.size(), 1U);
    service_.unsubscribe(1, {20, 1});
    EXPECT_EQ(platform_.sentTo({0}, 0x11).size(), 1U);
    EXPECT_TRUE(platform_.sentTo({0}, 0x12).empty());
  }
  EXPECT_EQ(platform_.sentTo({0}, 0x12).size(), 1U) << "the second has gone";
}

// Promise: A handler may end while a notification is dispatched, even if another one ends it.
TEST_F(LooperTest, ASubscriberMayEndTheOthersWhileANotificationIsDispatched) {
  auto second = std::make_unique<Service>();
  service_.subscribe(1, {20, 1});
  second->subscribe(1, {20, 1});
  service_.then = [&] { second.reset(); };
  platform_.notify(1, {20, 1});
  EXPECT_EQ(service_.heard.size(), 1U);
  EXPECT_FALSE(second);
}

TEST_F(LooperTest, SubscribingDoesNotWaitForTheBroker) {
  const auto start = platform_.clock().now();
  platform_.ignore({0}, 0x11);
  service_.subscribe(1, {20, 1});
  platform_.refuse({0}, 0x11, "not permitted");
  service_.subscribe(2, {20, 1});
  platform_.turn();
  EXPECT_EQ(platform_.clock().now(), start);
  EXPECT_EQ(service_.heard, Heard{});
}

// Promise: A change of settings is notified to subscribers with its fields, without those of the
// transport.
TEST_F(LooperTest, NotifiesOfSettingsWithTheirFields) {
  message request = number(3);
  request.insert_u32(key::serial, 9);
  request.insert_u32_array(key::source, {0x10001, 2});
  request.insert_u32_array(key::destination, {40, 0});
  service_.notifyChange(none, request);
  const auto notified = platform_.notified(cmd::changed);
  ASSERT_EQ(notified.size(), 1U);
  EXPECT_EQ(describe(notified[0]), "{u32 0x1=3, u32[] 0xff0002=[0 0], u32 0xff0007=16646155}");
}

// Also proves [object-notify].
TEST_F(LooperTest, NotifiesOfAnObjectWithItsRecord) {
  message config = number(3);
  config.insert_u32(key::serial, 9);
  service_.notifyChange(5, config);
  const auto notified = platform_.notified(cmd::changed);
  ASSERT_EQ(notified.size(), 1U);
  EXPECT_EQ(describe(contentOf(notified[0])), "{message[] 0xfe0002=[{u32 0xfe0001=5, u32 0x1=3}]}");
}

// Also proves [object-undo].
TEST_F(LooperTest, HandsUndoMessagesToTheHistory) {
  message undo;
  undo.insert_u32(key::command, cmd::set);
  undo.insert_bool(1, true);
  message request;
  request.insert_u32_array(key::source, {0x10001, none});
  service_.sendUndo(request, undo, "upnp config changed");
  const auto sent = platform_.sentTo({66}, cmd::addObject);
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(
      describe(contentOf(sent[0])),
      "{string 0x1=\"upnp config changed\", message 0x2={u32 0xff0007=16646158, bool 0x1=1}}");
  EXPECT_EQ(sent[0].get_u32_array_ref(key::source), (test::Path{0, 0}));
}

TEST_F(LooperTest, LeavesWhenTheConnectionEnds) {
  platform_.endConnection();
  looper_.run();
  EXPECT_TRUE(platform_.stopped());
  EXPECT_EQ(getError(service_.exchangeCmd(requestTo({20, 5}), 1, 6000)), "connection ended");
}

TEST_F(LooperTest, LeavesWhenTheConnectionEndedBeforeItRan) {
  platform_.endConnection();
  EXPECT_EQ(getError(service_.exchangeCmd(requestTo({20, 5}), 1, 6000)), "connection ended");
  // A loop that waits for something to happen does so for a minute.
  const auto started = std::chrono::steady_clock::now();
  looper_.run();
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
  EXPECT_TRUE(platform_.stopped());
}

TEST_F(LooperTest, LeavesWhenTheOtherSideSendsAnInvalidMessage) {
  platform_.deliverRaw("nonsense");
  looper_.run();
  EXPECT_TRUE(platform_.stopped());
}

// Also proves [timer-unit].
TEST_F(LooperTest, TimersComeDueInOrderWhileTheClockMoves) {
  struct Beat {
    void due() {
      times.push_back(platform->clock().now());
      timer.start<&Beat::due>(*this, 100);
    }
    TestPlatform* platform;
    std::vector<Clock::Time> times;
    Timer timer;
  };
  Beat beat{&platform_, {}, {}};
  const auto start = platform_.clock().now();
  beat.timer.start<&Beat::due>(beat, 100);
  platform_.advance(3500ms);
  EXPECT_EQ(beat.times, (std::vector<Clock::Time>{start + 1s, start + 2s, start + 3s}));
  EXPECT_EQ(platform_.clock().now(), start + 3500ms);
}

// Promise: A program has one looper and one loop, which are found from anywhere in it.
TEST(LooperAlone, IsTheProcessesLooper) {
  TestPlatform platform;
  Looper looper(platform.makeRuntime());
  EXPECT_EQ(&getLooper(), &looper);
  EXPECT_EQ(&getRunner(), &looper.runtime().loop());
}

// Also proves [register-wait].
TEST(Registration, MayTakeSixSeconds) {
  TestPlatform platform;
  platform.delay({0}, 0x10, 5999ms);
  const auto start = platform.clock().now();
  Looper looper(platform.makeRuntime());
  Service service;
  looper.addHandler(0, service);
  EXPECT_EQ(platform.clock().now() - start, 5999ms);
}

using RegistrationDeathTest = testing::Test;

void registersAt(TestPlatform& platform) {
  Looper looper(platform.makeRuntime());
  Service service;
  showLog();
  looper.addHandler(0, service);
}

// Promise [register-wait]: A registration waits six seconds for its answer, then the program ends
// with 1: `platform: service 40: no answer in time`.
TEST(RegistrationDeathTest, EndsTheProgramWhenItIsNotAnsweredInTime) {
  TestPlatform platform;
  platform.delay({0}, 0x10, 6001ms);
  EXPECT_EXIT(registersAt(platform), testing::ExitedWithCode(1),
              "platform: service 40: no answer in time");
}

// Promise [register-refused]: A program whose registration is refused logs `platform: service 40:
// already registered` and ends with 1.
TEST(RegistrationDeathTest, EndsTheProgramWhenItIsRefused) {
  TestPlatform platform;
  platform.refuse({0}, 0x10, "already registered");
  EXPECT_EXIT(registersAt(platform), testing::ExitedWithCode(1),
              "platform: service 40: already registered");
}

// Promise [handler-twice]: A program that adds two handlers under one number ends with 1:
// `platform: handler 3 is there already`.
TEST(RegistrationDeathTest, EndsTheProgramWhenTheNumberIsTaken) {
  EXPECT_EXIT(
      {
        TestPlatform platform;
        Looper looper(platform.makeRuntime());
        Service one;
        Service two;
        showLog();
        looper.addHandler(3, one);
        looper.addHandler(3, two);
      },
      testing::ExitedWithCode(1), "platform: handler 3 is there already");
}

/// With the platform's own clock, socket and signals.
class RealRuntime : public testing::Test {
 public:
  RealRuntime() { sigprocmask(SIG_SETMASK, nullptr, &usual_); }
  ~RealRuntime() override { sigprocmask(SIG_SETMASK, &usual_, nullptr); }

 protected:
  void platformListens() {
    listener_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener_.get(), 1), 0);
  }
  [[nodiscard]] std::string path() const { return dir_.file("lumen.sock"); }

  test::TempDir dir_;
  Fd listener_;

 private:
  sigset_t usual_{};
};

// Promise: A program leaves its loop on SIGTERM and on SIGINT.
TEST_F(RealRuntime, EndsOnSigtermAndSigint) {
  platformListens();
  for (int signal : {SIGTERM, SIGINT}) {
    Looper looper(Runtime::connect(path(), 5s));
    raise(signal);
    looper.run();
    EXPECT_TRUE(looper.runtime().stopped());
  }
}

// Promise: SIGPIPE ends neither a service nor lumend.
TEST_F(RealRuntime, IgnoresSigpipe) {
  platformListens();
  Looper looper(Runtime::connect(path(), 5s));
  raise(SIGPIPE);
}

// Promise: A program leaves its loop when the platform's connection ends.
TEST_F(RealRuntime, EndsWhenThePlatformDoes) {
  platformListens();
  Looper looper(Runtime::connect(path(), 5s));
  listener_.reset();
  looper.run();
}

// Also proves [socket-wait].
TEST_F(RealRuntime, WaitsForThePlatformToListen) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // What is seen is the end of the connection, when this process ends.
    const timespec later{0, 100'000'000};
    nanosleep(&later, nullptr);
    platformListens();
    const Fd client(accept(listener_.get(), nullptr, nullptr));
    _exit(client.valid() ? 0 : 1);
  }
  Looper looper(Runtime::connect(path(), 5s));
  looper.run();
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(LooperDeathTest, IsOneForAProgram) {
  EXPECT_EXIT(
      {
        showLog();
        TestPlatform platform;
        const Looper one(platform.makeRuntime());
        const Looper another(nullptr);
      },
      testing::ExitedWithCode(1), "platform: there is a looper already");
  EXPECT_EXIT(
      {
        showLog();
        const SystemClock clock;
        const EventLoop one(clock);
        const EventLoop another(clock);
      },
      testing::ExitedWithCode(1), "event loop: there is one already");
}

TEST(LooperDeathTest, IsThereBeforeItIsUsed) {
  const auto use = [](const std::function<void()>& what) {
    showLog();
    what();
  };
  const auto ends = testing::ExitedWithCode(1);
  EXPECT_EXIT(use([] { (void)getLooper(); }), ends, "platform: no looper");
  EXPECT_EXIT(use([] { (void)PendingReply::take(); }), ends, "platform: no looper");
  EXPECT_EXIT(use([] { Service().subscribe(cmd::changed, {20, 0}); }), ends, "platform: no looper");
  struct Owner {
    void later() {}
  };
  EXPECT_EXIT(use([] {
                Owner owner;
                Timer().start<&Owner::later>(owner, 1);
              }),
              ends, "event loop: there is none");
}

using RealRuntimeDeathTest = RealRuntime;

// Also proves [socket-wait].
TEST_F(RealRuntimeDeathTest, EndsTheProgramWhenThePlatformDoesNotComeUp) {
  EXPECT_EXIT(
      {
        showLog();
        (void)Runtime::connect(path(), 60ms);
      },
      testing::ExitedWithCode(1), "platform: .*lumen.sock: No such file or directory");
}

}  // namespace
}  // namespace lm
