#pragma once

#include <libmnl/libmnl.h>

#include <cstdint>
#include <map>

namespace lumenctl {

/// The links that sockets are bound to (SO_BINDTODEVICE), as kernel indexes by the sockets' inodes.
/// Sockets that are bound to no link are missing.
using SocketLinks = std::map<uint64_t, uint32_t>;

/// Adds the socket of a message of the kernel's (struct inet_diag_msg in linux/inet_diag.h). What
/// is no such message is passed over.
void addSocketLink(const nlmsghdr& message, SocketLinks& links);

/// Those of the IPv4 sockets in this network namespace that listen for TCP or take UDP from
/// anybody. A kernel that does not show them (CONFIG_INET_DIAG, CONFIG_INET_UDP_DIAG) makes them
/// missing.
[[nodiscard]] SocketLinks readSocketLinks();

}  // namespace lumenctl
