#pragma once

#include <cstdint>
#include <optional>

#include "platform/message.h"

namespace lm {

/// The answer to a request, to be sent after its dispatch has returned. Exactly one is sent: the
/// argument of `send`, or the error "service unavailable" when this is destroyed before. A handler
/// that holds some must be destroyed before the Looper, so that requesters still get that error.
class PendingReply {
 public:
  /// Takes over the answer to the request that is being dispatched; what dispatch returns is
  /// dropped. To be called from inside dispatch, once. A notification has no answer: what is sent
  /// then is dropped.
  [[nodiscard]] static PendingReply take();

  PendingReply(PendingReply&& other) noexcept;
  PendingReply& operator=(PendingReply&& other) noexcept;
  ~PendingReply();

  /// Sends the answer, unless one was sent before. Never blocks.
  void send(message reply);

 private:
  explicit PendingReply(std::optional<uint32_t> serial) : serial_(serial) {}
  void fail();

  std::optional<uint32_t> serial_;  // of the request, while it is not answered
};

}  // namespace lm
