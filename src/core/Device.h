#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "core/DevObj.h"
#include "http/ServedInterface.h"
#include "igd/WANCommonInterfaceConfig.h"
#include "igd/WANIPConnection.h"
#include "net/Address.h"
#include "platform/Fd.h"
#include "platform/Timer.h"
#include "platform/Watch.h"
#include "platform/message.h"

class Gateway;

/// An interface of the platform, with what the gateway has started on it: sockets and a timer on a
/// LAN side, two services on the WAN side. HTTP connections share ownership, so it may outlive its
/// interface.
class Device : public ServedInterface {
 public:
  /// Orders addresses by the number that a big-endian machine reads.
  struct ByNumber {
    bool operator()(uint32_t a, uint32_t b) const { return iptonumber(a) < iptonumber(b); }
  };

  explicit Device(lm::message interfaceRecord) : record(std::move(interfaceRecord)) {}
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  /// Opens both sockets, watches them for `gateway`, which must outlive them, and starts the
  /// advertisement timer. A socket that cannot be opened stays absent, which the maker logs.
  void openSockets(Gateway& gateway);
  /// Stops the timer and closes both sockets. Does nothing when they are closed.
  void closeSockets();

  /// The address to use: `address` as long as it is one of `addresses`, then the smallest of them,
  /// or 0 when there is none.
  [[nodiscard]] uint32_t currentAddress() const;

  /// The connection state of this interface.
  [[nodiscard]] WANIPConnection::Status connectionStatus() const;

  [[nodiscard]] uint32_t ipAddress() const override { return address; }
  [[nodiscard]] uint32_t id() const;
  [[nodiscard]] std::string displayName() const;
  /// The device name for binding sockets.
  [[nodiscard]] std::string interfaceName() const;

  [[nodiscard]] bool isStarted(uint32_t as) const { return started && type == as; }

  lm::message record;                      ///< as last received
  uint32_t type = interface_type::none;    ///< as configured
  bool disabled = false;                   ///< as reported by the platform
  bool running = false;                    ///< as reported by the platform
  std::set<uint32_t, ByNumber> addresses;  ///< all its IPv4 addresses, network byte order
  uint32_t address = 0;                    ///< the current one of them, 0 for none
  bool started = false;                    ///< the LAN side serves, or the WAN services exist
  lm::Fd discoverySocket;                  ///< LAN side: SSDP
  lm::Fd listenSocket;                     ///< LAN side: HTTP
  std::unique_ptr<WANCommonInterfaceConfig> commonIfc;  ///< WAN side
  std::unique_ptr<WANIPConnection> ipConn;              ///< WAN side

 private:
  void advertTimer();

  lm::Watch discoveryWatch_;
  lm::Watch listenWatch_;
  lm::Timer timer_;
};
