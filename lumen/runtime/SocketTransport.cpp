#include "lumen/runtime/SocketTransport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <utility>

#include "lumen/runtime/Codec.h"

namespace lm {
namespace {

/// How long a connection may wait in the platform's backlog.
constexpr std::chrono::seconds connectLimit(5);

/// Fills in `address`. A path that is too long for it is reached through its folder, `directory`,
/// which the caller keeps open as long as it uses the address.
bool makeAddress(const std::string& path, sockaddr_un& address, Fd& directory) {
  std::string name = path;
  if (name.size() >= sizeof address.sun_path) {
    const size_t slash = path.rfind('/');
    directory.reset(open(path.substr(0, slash + 1).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory.valid()) return false;
    name = "/proc/self/fd/" + std::to_string(directory.get()) + "/" + path.substr(slash + 1);
  }
  if (name.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  address.sun_family = AF_UNIX;
  std::copy(name.begin(), name.end(), address.sun_path);
  return true;
}

}  // namespace

SocketTransport::SocketTransport(Fd socket) : socket_(std::move(socket)) {}

std::unique_ptr<SocketTransport> SocketTransport::connect(const std::string& path) {
  sockaddr_un address{};
  Fd directory;
  if (!makeAddress(path, address, directory)) return nullptr;
  Fd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!socket.valid()) return nullptr;
  const timeval limit{connectLimit.count(), 0};
  setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return nullptr;
  }
  if (fcntl(socket.get(), F_SETFL, O_NONBLOCK) != 0) return nullptr;
  return std::make_unique<SocketTransport>(std::move(socket));
}

Transport::Status SocketTransport::send(std::string_view datagram) {
  ssize_t sent = 0;
  do {
    sent = ::send(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent >= 0) return Status::done;
  return errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM ? Status::wouldBlock
                                                                : Status::ended;
}

Transport::Status SocketTransport::receive(std::string& datagram) {
  // One for all, of which only what datagrams fill is ever touched: most are short.
  static std::array<char, maxDatagram + 1> buffer;
  ssize_t received = 0;
  do {
    received = recv(socket_.get(), buffer.data(), buffer.size(), 0);
  } while (received < 0 && errno == EINTR);
  if (received < 0 && errno == EAGAIN) return Status::wouldBlock;
  // No program sends an empty datagram, so 0 is the end.
  if (received <= 0) return Status::ended;
  datagram.assign(buffer.data(), static_cast<size_t>(received));
  return Status::done;
}

void SocketTransport::wait(std::chrono::milliseconds limit, bool toSend) {
  pollfd look{socket_.get(), static_cast<short>(toSend ? POLLIN | POLLOUT : POLLIN), 0};
  poll(&look, 1, static_cast<int>(std::min<int64_t>(limit.count(), INT_MAX)));
}

}  // namespace lm
