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
/// notifications that arrive are queued until they are taken. A reply that no exchange awaits, or
/// none any longer, is dropped. Programs without handlers use it alone.
class Connection {
 public:
  /// `clock` must outlive the connection.
  Connection(const Clock& clock, std::unique_ptr<Transport> transport);

  /// Sends `request` to the destination path in it, from handler number `sender`, and waits at most
  /// `limit` for the reply. Whatever else arrives is queued. Fails when there is no reply: not in
  /// time, or, at once, because the connection has ended. A request that is too long to be sent
  /// gets an error reply. One that is not answered in time is cancelled unless `late` lets it
  /// stand.
  [[nodiscard]] lumen::Result<message> call(message request, uint32_t command,
                                            std::chrono::milliseconds limit, uint32_t sender = none,
                                            GivenUp late = GivenUp::undone);
  /// The same with an error reply in place of a failure.
  [[nodiscard]] message exchange(message request, uint32_t command, std::chrono::milliseconds limit,
                                 uint32_t sender = none, GivenUp late = GivenUp::undone);
  /// Sends a request and ignores the reply. Never blocks, like the next two.
  void post(message request, uint32_t command, uint32_t sender);
  /// Sends a notification about `sender`.
  void notify(message notification, uint32_t command, uint32_t sender);
  /// Sends the answer to the request that has arrived with this serial.
  void reply(uint32_t serial, message answer);

  /// Receives what has arrived and sends what is queued. Never blocks.
  void progress();
  /// The number of requests and notifications that are queued for `take`.
  [[nodiscard]] size_t arrived() const { return arrived_.size(); }
  /// The first request or notification in the queue, if any. Requests that their senders have
  /// cancelled are no longer there.
  [[nodiscard]] std::optional<message> take();

  /// Whether the other side has closed the connection or sent an invalid message, which was logged.
  [[nodiscard]] bool ended() const { return ended_; }
  /// Whether something is queued for sending.
  [[nodiscard]] bool wantsToSend() const { return !outgoing_.empty(); }
  [[nodiscard]] int fd() const { return transport_->fd(); }

 private:
  uint32_t addressRequest(message& request, uint32_t command, uint32_t sender);
  bool send(const message& m);
  void flush();
  void receive();
  bool dropCancelled(const message& m);

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
