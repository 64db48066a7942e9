#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumen/ctl/machine/Machine.h"
#include "lumen/ctl/machine/SocketTable.h"

namespace lumenctl {

/// A port that the gateway serves its internal interfaces on.
struct GatewayPort {
  uint32_t protocol;  ///< IP protocol number
  uint32_t port;
  const char* name;  ///< "1900/udp"
};
/// SSDP, and the gateway's HTTP server.
inline constexpr std::array<GatewayPort, 2> gatewayPorts = {
    {{IPPROTO_UDP, 1900, "1900/udp"}, {IPPROTO_TCP, 2828, "2828/tcp"}}};

/// The user that a process runs as. None when that is not visible.
[[nodiscard]] std::optional<uint32_t> userOf(Machine& machine, uint32_t process);

/// The sockets that the gateway listens on, read in its own network namespace. The links that they
/// are bound to are visible only when that is also lumenctl's.
class GatewaySockets {
 public:
  /// `process` is the gateway's.
  GatewaySockets(Machine& machine, uint32_t process);

  /// The ports on which the gateway does not listen on the link with this kernel index; none when
  /// its sockets are not visible. A socket whose link is not visible counts for every link.
  [[nodiscard]] std::vector<std::string> missingOn(uint32_t link) const;

 private:
  struct Listener {
    uint32_t protocol;
    uint32_t port;
    uint32_t link;  // 0: every one
  };

  bool visible_ = true;
  std::vector<Listener> listeners_;
};

}  // namespace lumenctl
