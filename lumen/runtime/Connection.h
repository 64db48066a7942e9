#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "lumen/runtime/Clock.h"
#include "lumen/runtime/Transport.h"
#include "lumen/values/Result.h"
#include "platform/Handler.h"
#include "platform/Keys.h"
#include "platform/message.h"

namespace lm {

/// The connection to the other programs: requests go out and their replies come back; requests and
/// notifications that arrive are kept in order until somebody takes them. A reply that nobody
/// awaits, or not any more, is dropped. Programs without handlers use it by itself.
class Connection {
 public:
  /// `clock` must outlive the connection.
  Connection(const Clock& clock, std::unique_ptr<Transport> transport);

  /// Sends `request` to the destination path in it, from handler number `sender`, and waits at most
  /// `limit` for the reply. What else arrives is kept. Fails when there is no reply: not in time,
  /// or, at once, because the connection has ended. A request that is too long to be sent gets an
  /// error reply. One that is not answered in time is cancelled unless `late` lets it stand.
  [[nodiscard]] lumen::Result<message> call(message request, uint32_t command,
                                            std::chrono::milliseconds limit, uint32_t sender = none,
                                            GivenUp late = GivenUp::undone);
  /// The same with an error reply in place of a failure.
  [[nodiscard]] message exchange(message request, uint32_t command, std::chrono::milliseconds limit,
                                 uint32_t sender = none, GivenUp late = GivenUp::undone);
  /// Sends a request whose reply nobody wants. Waits for nobody, like the next two.
  void post(message request, uint32_t command, uint32_t sender);
  /// Sends a notification about `sender`.
  void notify(message notification, uint32_t command, uint32_t sender);
  /// Sends the answer to the request that has arrived with this serial.
  void reply(uint32_t serial, message answer);

  /// Takes in what has arrived and sends on what waits for room. Waits for nobody.
  void progress();
  /// The number of requests and notifications that are there for `take`.
  [[nodiscard]] size_t arrived() const { return arrived_.size(); }
  /// The first request or notification that has arrived, if any. A request that its sender has
  /// cancelled before is left out.
  [[nodiscard]] std::optional<message> take();

  /// Whether the other side is gone, or has sent what is no message, which was logged.
  [[nodiscard]] bool ended() const { return ended_; }
  /// Whether something waits for room to be sent.
  [[nodiscard]] bool wantsToSend() const { return !outgoing_.empty(); }
  [[nodiscard]] int fd() const { return transport_->fd(); }

 private:
  uint32_t address(message& request, uint32_t command, uint32_t sender);
  bool send(const message& m);
  void flush();
  void receive();
  bool withdraw(const message& m);

  const Clock& clock_;
  std::unique_ptr<Transport> transport_;
  std::deque<message> arrived_;
  std::deque<std::string> outgoing_;
  size_t outgoingBytes_ = 0;
  uint32_t lastSerial_ = 0;
  std::optional<uint32_t> awaited_;  // serial of the reply that an exchange waits for
  std::optional<message> reply_;     // that reply
  bool ended_ = false;
};

}  // namespace lm
