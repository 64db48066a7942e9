#pragma once

#include <cstdint>
#include <optional>

#include "platform/message.h"

namespace lm {

/// The answer to a request that is given after its dispatch has returned. Exactly one goes out:
/// what `send` is given, or the error "service unavailable" when nothing was sent before the end.
/// A handler that keeps some must be destroyed before the Looper: then whoever still waits is told.
class PendingReply {
 public:
  /// Takes over the answer to the request that is being dispatched; what dispatch returns is
  /// dropped. To be called from inside dispatch, once. A notification has no answer: what is sent
  /// then goes to nobody.
  [[nodiscard]] static PendingReply take();

  PendingReply(PendingReply&& other) noexcept;
  PendingReply& operator=(PendingReply&& other) noexcept;
  ~PendingReply();

  /// Answers. Does nothing when that has happened before. Waits for nobody.
  void send(message reply);

 private:
  explicit PendingReply(std::optional<uint32_t> serial) : serial_(serial) {}
  void fail();

  std::optional<uint32_t> serial_;  // of the request, while it is not answered
};

}  // namespace lm
