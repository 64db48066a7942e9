#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lumen/runtime/Runtime.h"
#include "lumen/values/ElementOrder.h"
#include "platform/Fd.h"
#include "platform/message.h"
#include "support/ManualClock.h"

namespace lm::test {

using Path = std::vector<uint32_t>;

/// All the other programs of the router, in the test's own process, and the clock.
///
///     TestPlatform platform;
///     platform.onRequest({20, 5}, cmd::addObject, [](const message&) { return rule(7); });
///     Looper looper(platform.makeRuntime());
///     Gateway gateway;
///     looper.addHandler(0, gateway);
///     platform.advance(1s);
///     EXPECT_EQ(platform.sentTo({20, 5}, cmd::addObject).size(), 1U);
///
/// The broker, path [0], accepts everything unless told otherwise; any other request that has no
/// script is answered with the error "no such service". Replies come at once unless delayed. While
/// the program waits for one the clock moves, to the time of the reply or of the limit.
class TestPlatform {
 public:
  using Script = std::function<message(const message& request)>;

  TestPlatform();
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;
  ~TestPlatform();

  /// What the looper under test is made of. To be called once; this platform must outlive it.
  [[nodiscard]] std::unique_ptr<Runtime> makeRuntime();

  // What the other programs answer. A later call for the same path and command counts.

  void onRequest(const Path& path, uint32_t command, Script script);
  /// The same reply each time.
  void answer(const Path& path, uint32_t command, const message& reply);
  /// An error reply each time.
  void refuse(const Path& path, uint32_t command, const std::string& text);
  /// The records of a table page by page.
  void serveTable(const Path& path, uint32_t command, std::map<uint32_t, message> records);
  /// No reply at all.
  void ignore(const Path& path, uint32_t command);
  /// From now on replies to it come so much later.
  void delay(const Path& path, uint32_t command, std::chrono::milliseconds time);
  /// The connection is over, after what the program has not received yet.
  void endConnection();
  /// Bytes that need not be a message.
  void deliverRaw(std::string_view datagram);

  // What the program under test said: requests and notifications, in order, as they were sent.

  [[nodiscard]] const std::vector<message>& sent() const { return sent_; }
  [[nodiscard]] std::vector<message> sentTo(const Path& path, uint32_t command) const;
  /// The notifications `command` that it sent.
  [[nodiscard]] std::vector<message> notified(uint32_t command) const;
  void forgetSent() { sent_.clear(); }

  // Requests and notifications of the other programs, dispatched before the call returns.

  /// A request to the program's handler `number` and its reply, without transport fields but an
  /// error's. `from` is the source path as the broker writes it.
  message request(uint32_t number, uint32_t command, const message& fields = {},
                  const Path& from = {0x10001, 0xFFFFFFFF});
  void notify(uint32_t command, const Path& source, const message& fields = {});

  // The same, but left to arrive when the program looks the next time.

  /// Returns the serial, under which `replyTo` has the reply later.
  uint32_t postRequest(uint32_t number, uint32_t command, const message& fields = {},
                       const Path& from = {0x10001, 0xFFFFFFFF});
  void postNotification(uint32_t command, const Path& source, const message& fields = {});
  [[nodiscard]] std::optional<message> replyTo(uint32_t serial) const;

  // Time.

  [[nodiscard]] ManualClock& clock() { return clock_; }
  /// Dispatches what is ready now: descriptors, due timers, messages.
  void turn();
  /// Turns until `condition` holds; waits for descriptors up to `limit` of real time in all. False
  /// when it does not come to hold.
  [[nodiscard]] bool turnUntil(const std::function<bool()>& condition,
                               std::chrono::milliseconds limit = std::chrono::seconds(5));
  /// Moves the clock on. Timers run at the times when they come due, in order.
  void advance(std::chrono::milliseconds time);
  /// Whether the looper's `run` would return.
  [[nodiscard]] bool stopped() const;

 private:
  class Wire;
  struct Reaction {
    Script script;  // empty: never answers
    std::chrono::milliseconds delay{0};
  };

  void received(const message& m);
  void deliver(Clock::Time time, const message& m);
  void wake();
  [[nodiscard]] Reaction& reactionTo(const Path& path, uint32_t command);

  ManualClock clock_;
  Fd event_;  // readable when something is there for the program
  std::multimap<Clock::Time, std::string> inbox_;  // datagrams to the program by time of arrival
  bool ended_ = false;
  std::map<std::pair<Path, uint32_t>, Reaction, lumen::ElementOrder> reactions_;
  std::vector<message> sent_;
  std::map<uint32_t, message> replies_;  // by serial
  uint32_t lastSerial_ = 0;
  Runtime* runtime_ = nullptr;  // while it lives
};

/// `m` without the fields of its transport: what a request or notification says.
[[nodiscard]] message contentOf(const message& m);

}  // namespace lm::test
