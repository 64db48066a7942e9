#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lumen/runtime/Clock.h"

namespace lumen {

/// The connection that waits for an answer, and the serial of its request.
struct Requester {
  uint64_t connection = 0;
  uint32_t serial = 0;

  bool operator==(const Requester&) const = default;
};

/// A request under the serial by which its receiver knows it.
struct SentRequest {
  uint64_t to = 0;
  uint32_t serial = 0;
};

/// A request to a service that is not up yet.
struct WaitingRequest {
  Requester from;
  uint32_t service = 0;
  lm::Clock::Time deadline;
  std::string datagram;  ///< the request without serial: far smaller than its message
};

/// The requests that are not answered yet. Each is answered once: the caller that takes one out
/// answers it.
class Requests {
 public:
  /// Notes a request that is sent to the connection `to`; returns its serial there.
  [[nodiscard]] uint32_t addSent(Requester from, uint64_t to);
  /// The reply with this serial has come from the connection `to`. None when no requester waits for
  /// it.
  [[nodiscard]] std::optional<Requester> takeAnswered(uint32_t serial, uint64_t to);
  /// The connection `to` has ended: the requesters that still wait for it.
  [[nodiscard]] std::vector<Requester> takeSentTo(uint64_t to);

  /// The requester has given up. Where the request was sent to; none: it was not, or is answered.
  [[nodiscard]] std::optional<SentRequest> takeSent(Requester from);

  /// Deadlines must not fall from one to the next.
  void addWaiting(WaitingRequest request);
  [[nodiscard]] size_t waitingBytes() const { return waitingBytes_; }
  /// The requester has given up. False when none of its requests with that serial waits.
  [[nodiscard]] bool dropWaiting(Requester from);
  /// Those that wait for `service`, in the order of asking.
  [[nodiscard]] std::vector<WaitingRequest> takeWaitingFor(uint32_t service);
  /// Those whose deadline is reached.
  [[nodiscard]] std::vector<WaitingRequest> takeLate(lm::Clock::Time now);
  [[nodiscard]] std::optional<lm::Clock::Time> nextDeadline() const;

 private:
  struct Sent {
    Requester from;
    uint64_t to = 0;
  };

  uint32_t lastSerial_ = 0;
  std::map<uint32_t, Sent> sent_;  // by serial
  std::deque<WaitingRequest> waiting_;
  size_t waitingBytes_ = 0;  // of their datagrams
};

}  // namespace lumen
