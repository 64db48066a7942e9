#include "lumen/ctl/check/GatewaySockets.h"

#include <algorithm>
#include <sstream>

namespace lumenctl {

std::optional<uint32_t> userOf(Machine& machine, uint32_t process) {
  const auto text = machine.read("/proc/" + std::to_string(process) + "/status");
  const size_t field = text ? text->find("\nUid:") : std::string::npos;
  if (field == std::string::npos) return std::nullopt;
  std::istringstream numbers(text->substr(field + 5));
  uint32_t real = 0;
  uint32_t effective = 0;
  if (!(numbers >> real >> effective)) return std::nullopt;
  return effective;
}

GatewaySockets::GatewaySockets(Machine& machine, uint32_t process) {
  const std::optional<uint32_t> user = userOf(machine, process);
  const std::string folder = "/proc/" + std::to_string(process) + "/net/";
  const SocketLinks links = machine.socketLinks();
  for (const GatewayPort& needed : gatewayPorts) {
    const auto table = machine.read(folder + (needed.protocol == IPPROTO_TCP ? "tcp" : "udp"));
    visible_ = visible_ && user && table;
    for (const BoundSocket& socket : boundSockets(table.value_or(""))) {
      // No other program runs as the gateway's user.
      if (socket.port != needed.port || socket.user != user) continue;
      const auto link = links.find(socket.inode);
      listeners_.push_back({needed.protocol, needed.port, link == links.end() ? 0 : link->second});
    }
  }
}

std::vector<std::string> GatewaySockets::missingOn(uint32_t link) const {
  std::vector<std::string> missing;
  if (!visible_) return missing;
  for (const GatewayPort& needed : gatewayPorts) {
    const bool listens =
        std::any_of(listeners_.begin(), listeners_.end(), [&](const Listener& listener) {
          return listener.protocol == needed.protocol && listener.port == needed.port &&
                 (listener.link == 0 || listener.link == link);
        });
    if (!listens) missing.emplace_back(needed.name);
  }
  return missing;
}

}  // namespace lumenctl
