#pragma once

#include <cstdint>
#include <string>

#include "platform/Fd.h"
#include "platform/Timer.h"
#include "platform/Watch.h"
#include "upnp/Service.h"

/// One delivery: a connection to a subscriber that carries one NOTIFY and its reply. Its destructor
/// closes the connection.
class Service::Event {
 public:
  /// The time limit of a delivery from its start, in hundredths of a second.
  static constexpr uint32_t NOTIFY_TIMEOUT = 3000;

  /// `connection` is being established. `number` increases from delivery to delivery. An empty
  /// `variableName` selects every evented variable: the initial event. `owner` must outlive this.
  Event(Service& owner, lm::Fd connection, uint64_t number, std::string sidText,
        std::string variableName);
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  /// The connection is established or has failed.
  void send(int fd, unsigned flags);
  /// Reads the subscriber's reply. Returns false when the subscriber closed the connection; the
  /// delivery then continues until its time limit.
  bool readReply(int fd, unsigned flags);
  /// Gives the delivery up, for any reason. Destroys this.
  void timeout();

  /// Writes the NOTIFY, briefly waiting for room in the send buffer, and starts to wait for the
  /// reply. Returns false, after a log line, when not all of it could be written.
  [[nodiscard]] bool write(const std::string& notify);

  Service& service;
  lm::Fd socket;
  const uint64_t serial;
  const std::string sid;
  const std::string variable;
  bool waiting = false;  ///< connected, but waiting for its turn

 private:
  lm::Watch watch_;
  lm::Timer timer_;
};
