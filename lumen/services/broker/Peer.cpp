#include "lumen/services/broker/Peer.h"

#include <sys/socket.h>

#include <cerrno>

namespace lumen {

std::optional<Peer> readPeer(int socket) {
  ucred credentials = {};
  socklen_t length = sizeof credentials;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
  Peer peer;
  peer.pid = credentials.pid;
  peer.user = credentials.uid;

  // SO_PEERCRED shows the primary group only. The kernel says how much room the others need.
  std::vector<gid_t> others;
  length = 0;
  while (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, others.data(), &length) != 0) {
    if (errno != ERANGE) return std::nullopt;
    others.resize(length / sizeof(gid_t));
  }
  others.resize(length / sizeof(gid_t));
  peer.groups.push_back(credentials.gid);
  peer.groups.insert(peer.groups.end(), others.begin(), others.end());
  return peer;
}

}  // namespace lumen
