#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "lumen/values/Ipv4.h"
#include "platform/message.h"

namespace lumenctl {

/// Something that happened to a port. Of a request that said no valid port some of it is 0.
struct PortEvent {
  using Time = std::chrono::sys_time<std::chrono::milliseconds>;

  explicit PortEvent(const lm::message& record);

  /// "opened", "changed", "closed", "refused", or the number of another event.
  [[nodiscard]] std::string name() const;
  /// "tcp", "udp", or the number of another protocol.
  [[nodiscard]] std::string protocolName() const;

  /// The address on which the port is; empty of a port of an IPv6 host.
  [[nodiscard]] std::string externalText() const;
  /// Where it leads: "192.168.88.10:80", "[2001:db8::10]:8080".
  [[nodiscard]] std::string clientText() const;

  /// On one line, in columns under headings(); made printable. `userName` is that of `user`.
  [[nodiscard]] std::string line(const std::string& userName) const;
  [[nodiscard]] static std::string headings();

  uint32_t id = 0;  ///< higher than those of earlier events
  uint32_t event = 0;
  Time time;
  lumen::Endpoint external;
  lumen::Endpoint client;
  std::string host;       ///< of a port of an IPv6 host: its address; the two above are empty then
  uint32_t protocol = 0;  ///< IP protocol number
  std::string owner;      ///< who asked: the name of a service, or "administrator"
  uint32_t user = 0;      ///< of the program that asked
  std::string reason;     ///< may be empty
};

}  // namespace lumenctl
