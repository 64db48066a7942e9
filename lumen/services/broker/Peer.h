#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>

namespace lumen {

/// The process at the other end of a Unix socket, as the kernel recorded it at connect.
struct Peer {
  pid_t pid = 0;
  uid_t user = 0;
  std::vector<gid_t> groups;  ///< the primary one first
};

/// None when the kernel does not report it.
[[nodiscard]] std::optional<Peer> readPeer(int socket);

}  // namespace lumen
