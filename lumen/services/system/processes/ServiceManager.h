#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "lumen/runtime/Time.h"
#include "platform/Fd.h"
#include "platform/Timer.h"

namespace lumen {

/// Notifies the service manager that started this process, by the protocol of sd_notify(3). Without
/// one nothing is sent. What cannot be sent is dropped: the manager draws its own conclusion.
class ServiceManager {
 public:
  /// The manager that this process's environment names.
  static ServiceManager ofThisProcess();

  /// `socket`: path of its datagram socket, or "@" and an abstract name; empty: none.
  /// `watchdog`: after so long without a sign of life it restarts this process; 0: never.
  ServiceManager(std::string socket, std::chrono::microseconds watchdog);
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;

  /// Reports that the start is done, and from now on, twice in each watchdog interval, that the
  /// loop still turns.
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
