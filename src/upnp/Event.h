#pragma once

#include <cstdint>
#include <string>

#include "platform/Fd.h"
#include "platform/Timer.h"
#include "platform/Watch.h"
#include "upnp/Service.h"

/// One delivery: a connection to a subscriber that carries one NOTIFY, until the reply. Its end
/// closes the connection.
class Service::Event {
 public:
  /// The life of a delivery from its start, in hundredths of a second.
  static constexpr uint32_t NOTIFY_TIMEOUT = 3000;

  /// `connection` is on its way to the subscriber. `number` rises from delivery to delivery. An
  /// empty `variableName` means every evented variable: the initial event. `owner` must outlive
  /// this.
  Event(Service& owner, lm::Fd connection, uint64_t number, std::string sidText,
        std::string variableName);
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  /// The connection is ready for the NOTIFY, or has failed.
  void send(int fd, unsigned flags);
  /// The subscriber has answered, or closed: then it returns false, and the delivery goes on until
  /// its time is over.
  bool readReply(int fd, unsigned flags);
  /// Drops the delivery, whatever the cause. Destroys this.
  void timeout();

  /// Writes the NOTIFY, for which the subscriber gets a moment to make room, and waits for the
  /// reply. False, after a log line, when it could not be written as a whole.
  [[nodiscard]] bool write(const std::string& notify);

  Service& service;
  lm::Fd socket;
  const uint64_t serial;
  const std::string sid;
  const std::string variable;
  bool waiting = false;  ///< connected, but not its turn yet

 private:
  lm::Watch watch_;
  lm::Timer timer_;
};
