#include "lumen/services/broker/Listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "lumen/runtime/Log.h"
#include "lumen/services/broker/Peer.h"

namespace lumen {

namespace {

constexpr int backlog = 64;

}  // namespace

Listener::~Listener() {
  if (!path_.empty()) unlink(path_.c_str());
}

Result<void> Listener::listen(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return Failure{path + ": " + strerror(ENAMETOOLONG)};
  }
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  unlink(path.c_str());
  socket_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  constexpr mode_t allUsers = 0666;
  if (!socket_.valid() ||
      bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      chmod(path.c_str(), allUsers) != 0 || ::listen(socket_.get(), backlog) != 0) {
    return Failure{path + ": " + strerror(errno)};
  }
  path_ = path;
  watch_.start<&Listener::ready>(socket_.get(), *this, lm::watchAccept);
  return {};
}

bool Listener::ready(int fd) {
  lm::Fd client(accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!client.valid()) {
    if (errno != EAGAIN) lm::logLine("accept: ", strerror(errno));
    return false;
  }
  const std::optional<Peer> peer = readPeer(client.get());
  if (peer) broker_.admit(std::move(client), *peer);
  return true;
}

}  // namespace lumen
