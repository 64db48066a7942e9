#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace lumenctl {

/// A socket that receives what arrives at a port of the router.
struct BoundSocket {
  uint32_t port = 0;
  uint32_t user = 0;   ///< its owner's number
  uint64_t inode = 0;  ///< 0: its program has ended
};

/// The sockets in the text of /proc/net/udp, or the listening ones in that of /proc/net/tcp, or of
/// the same files for IPv6 those that take IPv4 too. Invalid lines are ignored.
[[nodiscard]] std::vector<BoundSocket> boundSockets(std::string_view table);

}  // namespace lumenctl
