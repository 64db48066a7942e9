#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "platform/Timer.h"

class Service;

/// A control point's subscription to changes (GENA, UPnP Device Architecture 1.0 section 4), until
/// it unsubscribes or its time is over.
class Subscription {
 public:
  /// The bounds of the granted time, in seconds; the lower one is the default.
  static constexpr uint32_t shortestTime = 1800;
  static constexpr uint32_t longestTime = 86400;

  /// How long the initial event is delayed, in hundredths of a second. A control point may need
  /// this long to record the SID from the reply to its SUBSCRIBE, and drops an event with an
  /// unknown SID.
  static constexpr uint32_t initialEventDelay = 5;

  /// The most deliveries under way at a time to a subscriber that does not answer them, and the
  /// most changes that wait for one of them to end. Changes usually come a second or more apart.
  static constexpr size_t mostUnderWay = 16;
  static constexpr size_t mostPending = 32;

  /// A change that is to be delivered. `number` increases from change to change.
  struct Change {
    uint64_t number = 0;
    std::string variable;  ///< empty for every evented one: the initial event
  };

  /// `owner` must outlive the subscription.
  Subscription(Service& owner, std::string sidText) : service(owner), sid(std::move(sidText)) {}
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  /// Restarts the subscription's time, in seconds.
  void grant(uint32_t time);
  void delayInitialEvent();
  [[nodiscard]] bool initialEventIsDelayed() const { return initialDelay_.pending(); }

  /// The SEQ of the next NOTIFY: 0, 1, ..., 4294967295, 1, ...
  [[nodiscard]] uint32_t takeSeq();
  /// Uses up a SEQ for a change that is not delivered, so that the subscriber sees that it missed
  /// one. The initial event keeps SEQ 0.
  void skipSeq();
  /// The initial event was written or dropped.
  void endInitialEvent();

  Service& service;
  const std::string sid;       ///< "uuid:" and a UUID
  uint32_t address = 0;        ///< of the callback, network byte order
  uint16_t port = 0;           ///< of the callback, network byte order
  std::string path;            ///< of the callback, begins with "/"
  uint32_t seq = 0;            ///< of the next NOTIFY
  int initialEvent = -1;       ///< socket of the initial event until that is written or dropped
  size_t underWay = 0;         ///< deliveries that have started and not ended
  std::deque<Change> pending;  ///< changes whose delivery has to wait, the oldest first

 private:
  void timeout();
  void initialDelayOver();

  uint32_t skipped_ = 0;  ///< SEQs to use up after the initial event
  lm::Timer timer_;
  lm::Timer initialDelay_;
};

/// The time granted for a TIMEOUT field, in seconds.
[[nodiscard]] uint32_t grantedTime(const std::string& timeout);
