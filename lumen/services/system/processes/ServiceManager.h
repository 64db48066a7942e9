#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "lumen/runtime/Time.h"
#include "platform/Fd.h"
#include "platform/Timer.h"

namespace lumen {

/// The program that started this one and watches over it, told in the way of sd_notify(3). Without
/// one nothing is sent. What cannot be sent is lost: the manager draws its own conclusion.
class ServiceManager {
 public:
  /// What the manager of this process has put into its environment.
  static ServiceManager ofThisProcess();

  /// `socket`: path of its datagram socket, or "@" and an abstract name; empty: none.
  /// `watchdog`: it gives this process up after so long without a sign of life; 0: it never does.
  ServiceManager(std::string socket, std::chrono::microseconds watchdog);
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;

  /// Says that the start is done, and from now on that the loop still turns, twice in the time that
  /// the manager waits.
  void ready();

 private:
  void keepAlive();
  void send(const std::string& text) const;

  std::string socket_;
  Centiseconds interval_;  // between two signs of life; 0: no watchdog
  lm::Fd sender_;
  lm::Timer timer_;
};

}  // namespace lumen
