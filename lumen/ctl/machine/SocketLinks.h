#pragma once

#include <libmnl/libmnl.h>

#include <cstdint>
#include <map>

namespace lumenctl {

/// The links that sockets are bound to (SO_BINDTODEVICE), as kernel indexes by the sockets' inodes.
/// Sockets that are bound to no link are missing.
using SocketLinks = std::map<uint64_t, uint32_t>;

/// Adds the socket that the kernel reports in `message` (struct inet_diag_msg in
/// linux/inet_diag.h). Other messages are ignored.
void addSocketLink(const nlmsghdr& message, SocketLinks& links);

/// Those of the IPv4 sockets in this network namespace that listen for TCP or receive UDP from any
/// sender. Empty when the kernel does not report them (CONFIG_INET_DIAG, CONFIG_INET_UDP_DIAG).
[[nodiscard]] SocketLinks readSocketLinks();

}  // namespace lumenctl
