#pragma once

#include <cstdint>
#include <string>

#include "platform/Timer.h"

class Service;

/// A control point that is told of changes (GENA, UPnP Device Architecture 1.0 section 4), until it
/// unsubscribes or its time is over.
class Subscription {
 public:
  /// Bounds of the time that is granted, in seconds; the lower one is the default.
  static constexpr uint32_t shortestTime = 1800;
  static constexpr uint32_t longestTime = 86400;

  /// How long the initial event is held back, in hundredths of a second. A control point may need
  /// that long to take note of the SID that the answer to its SUBSCRIBE carries, and drops an event
  /// with a SID that it does not know.
  static constexpr uint32_t holdBackTime = 5;

  /// `owner` must outlive the subscription.
  Subscription(Service& owner, std::string sidText) : service(owner), sid(std::move(sidText)) {}
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  /// Starts the time anew, in seconds.
  void grant(uint32_t time);
  void holdBackInitialEvent();
  [[nodiscard]] bool initialEventIsHeldBack() const { return holdBack_.pending(); }

  /// The SEQ of the next NOTIFY: 0, 1, ..., 4294967295, 1, ...
  [[nodiscard]] uint32_t takeSeq();

  Service& service;
  const std::string sid;  ///< "uuid:" and a UUID
  uint32_t address = 0;   ///< of the callback, network byte order
  uint16_t port = 0;      ///< of the callback, network byte order
  std::string path;       ///< of the callback, begins with "/"
  uint32_t seq = 0;       ///< of the next NOTIFY
  int initialEvent = -1;  ///< socket of the initial event while that is neither written nor dropped

 private:
  void timeout();
  void holdBackOver();

  lm::Timer timer_;
  lm::Timer holdBack_;
};

/// The time that a TIMEOUT field is granted, in seconds.
[[nodiscard]] uint32_t grantedTime(const std::string& timeout);
