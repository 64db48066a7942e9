#include "lumen/ctl/machine/SocketTable.h"

#include <ios>
#include <sstream>
#include <string>

namespace lumenctl {

namespace {

// The states that /proc/net shows (net/tcp_states.h).
constexpr uint32_t listening = 0x0A;
constexpr uint32_t unconnectedUdp = 0x07;

/// Of an address as /proc/net writes it: an IPv4 one, the unspecified IPv6 one, or an IPv4-mapped
/// one (RFC 4291, section 2.5.5.2).
bool takesIpv4(const std::string& address) {
  constexpr size_t ipv4Digits = 8;
  const bool mapped = address.starts_with("0000000000000000FFFF0000");
  return address.size() == ipv4Digits || mapped ||
         address.find_first_not_of('0') == std::string::npos;
}

}  // namespace

std::vector<BoundSocket> boundSockets(std::string_view table) {
  std::vector<BoundSocket> sockets;
  std::istringstream lines{std::string(table)};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream columns(line);
    std::string slot;
    std::string local;
    std::string skipped;
    uint32_t state = 0;
    BoundSocket socket;
    columns >> slot >> local >> skipped >> std::hex >> state >> std::dec;
    columns >> skipped >> skipped >> skipped >> socket.user >> skipped >> socket.inode;
    const size_t colon = local.find(':');
    if (!columns || colon == std::string::npos) continue;
    if (state != listening && state != unconnectedUdp) continue;
    if (!takesIpv4(local.substr(0, colon))) continue;
    if (!(std::istringstream(local.substr(colon + 1)) >> std::hex >> socket.port)) continue;
    sockets.push_back(socket);
  }
  return sockets;
}

}  // namespace lumenctl
