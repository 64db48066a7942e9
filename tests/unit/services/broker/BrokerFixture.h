#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/broker/Broker.h"
#include "lumen/services/supervisor/Supervisor.h"
#include "platform/Fd.h"
#include "platform/message.h"
#include "services/supervisor/FakeProcesses.h"
#include "support/Describe.h"
#include "support/ManualClock.h"

namespace lumen::test {

inline constexpr uint32_t someCommand = 3;

/// A program at the other end of a connection.
class Program {
 public:
  explicit Program(lm::Fd socket) : socket_(std::move(socket)) {}

  void sendBytes(const std::string& datagram);
  void send(const lm::message& m);
  /// Sends a request; the serial is 1 more than that of the one before. Returns the serial.
  uint32_t ask(const std::vector<uint32_t>& path, uint32_t command, lm::message fields = {});
  /// Answers `request` with `fields`.
  void answer(const lm::message& request, lm::message fields = {});
  void notify(uint32_t command, uint32_t handler, lm::message fields = {});
  /// Gives up the request with that serial.
  void cancel(uint32_t serial);
  void close() { socket_.reset(); }

  /// The next message that has arrived; none: there is none.
  std::optional<lm::message> receive();
  /// The next message, which must have arrived; empty: the test fails.
  lm::message next();
  /// The text of the error reply that has arrived; "" when it is no error, or there is none.
  std::string error();
  /// Whether the broker has ended the connection and everything is read.
  bool isDisconnected();

 private:
  lm::Fd socket_;
  uint32_t serial_ = 0;
};

/// A handler of this process that records its requests.
class NotingHandler : public LocalHandler {
 public:
  lm::message handle(const Caller& caller, uint32_t command, const lm::message& request) override {
    callers.push_back(caller);
    commands.push_back(command);
    requests.push_back(request);
    undoWith([this, command] { undone.push_back(command); });
    return reply;
  }
  void connectionEnded(uint64_t connection) override { ended.push_back(connection); }
  bool isPrivate() const override { return forAdministrators; }

  bool forAdministrators = false;
  lm::message reply;
  std::vector<Caller> callers;
  std::vector<uint32_t> commands;
  std::vector<uint32_t> undone;  // commands
  std::vector<lm::message> requests;
  std::vector<uint64_t> ended;
};

/// A broker with three services that are started when needed, "upnp", number 40 of user 200,
/// "resolver", number 14 of user 201, which answers only, and "web", number 42 of user 202, which
/// reads; handlers of this process at [20, 5] and [66, 0]; and programs.
class BrokerTest : public testing::Test {
 protected:
  static constexpr uint32_t gateway = 40;
  static constexpr uint32_t resolver = 14;
  static constexpr uid_t gatewayUser = 200;
  static constexpr uid_t resolverUser = 201;
  static constexpr uid_t readerUser = 202;
  static constexpr uid_t otherUser = 1000;
  static constexpr gid_t administrators = 900;

  BrokerTest();

  Program connect(uid_t user, std::vector<gid_t> groups = {100}, pid_t pid = 1);
  Program connectAdministrator() { return connect(0); }
  /// Services that were started by hand and have registered.
  Program connectGateway();
  Program connectResolver();
  /// The gateway daemon as the process that was started last; it has registered.
  Program startedGateway();

  /// Sends a request and reads the answer: the text of the error, "" when it is none.
  std::string errorOf(Program& program, const std::vector<uint32_t>& path, uint32_t command,
                      lm::message fields = {});
  void registerAs(Program& program, uint32_t service);
  void unregister(Program& program, uint32_t service);
  void subscribe(Program& program, uint32_t command, std::vector<uint32_t> path);

  /// Each of these lets the broker handle what was sent.
  uint32_t asksGateway(Program& client, lm::message fields = {});
  void answers(Program& service, const lm::message& request, lm::message fields = {});
  void givesUp(Program& client, uint32_t serial);

  /// Lets the broker handle everything that was sent.
  void settle(int turns = 40);
  void pass(std::chrono::milliseconds time);

  lm::test::ManualClock clock;
  lm::EventLoop loop{clock};
  FakeProcesses processes;
  Supervisor supervisor;
  Broker broker;
  NotingHandler rules;
  NotingHandler history;
};

[[nodiscard]] lm::message fields(const std::string& text);
/// A complete request, with serial 1.
[[nodiscard]] lm::message requestTo(const std::vector<uint32_t>& path, uint32_t command);
[[nodiscard]] lm::message topic(uint32_t command, std::vector<uint32_t> path);
[[nodiscard]] lm::message services(const std::vector<uint32_t>& numbers);

}  // namespace lumen::test
