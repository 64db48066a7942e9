#pragma once

#include <libmnl/libmnl.h>

#include <memory>
#include <optional>
#include <string>

#include "lumen/services/system/netlink/Listeners.h"

namespace lumen {

/// The sockets of the network namespace of this process, from sock_diag(7). It tells their users
/// and control groups without a privilege; whose process one is it would not tell without one that
/// lumend does not keep.
class SocketListeners : public Listeners {
 public:
  SocketListeners() = default;
  SocketListeners(const SocketListeners&) = delete;
  SocketListeners& operator=(const SocketListeners&) = delete;

  [[nodiscard]] std::optional<std::string> find(uint8_t protocol, const Endpoint& endpoint,
                                                uint32_t interface) override;

 private:
  struct Closer {
    void operator()(mnl_socket* socket) const;
  };

  [[nodiscard]] bool open();

  std::unique_ptr<mnl_socket, Closer> socket_;  // null: not opened, or not any more
  bool failed_ = false;                         // as was logged
};

/// What a socket says of itself.
struct ListeningSocket {
  bool takesAnyAddress = false;  ///< of IPv4
  Ipv4Address address;           ///< which it takes otherwise; 0.0.0.0: none of IPv4
  uint32_t interface = 0;        ///< kernel index; 0: every one
  uint32_t user = 0;
  uint64_t group = 0;  ///< the number of its control group; 0: not known
};

/// Reads a message of a dump; none when it is no socket.
[[nodiscard]] std::optional<ListeningSocket> readListeningSocket(const nlmsghdr& message);

}  // namespace lumen
