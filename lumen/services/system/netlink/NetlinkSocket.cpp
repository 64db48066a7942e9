#include "lumen/services/system/netlink/NetlinkSocket.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

namespace lumen {
namespace {

// The kernel makes a dump's datagrams as long as the reader's buffer, up to 32 KiB.
constexpr size_t bufferSize = 32UL * 1024;

constexpr timeval receiveLimit{5, 0};

}  // namespace

bool NetlinkSocket::open(unsigned groups, int receiveBuffer) {
  close();
  socket_.reset(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
  if (!socket_) return false;
  if (receiveBuffer > 0) {
    // Needs CAP_NET_ADMIN; without it the system's limit holds. Losses are noticed either way.
    (void)setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer);
  }
  // Lets a request for routes name the link: the kernel then leaves out the others itself.
  const int on = 1;
  if (setsockopt(fd(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on) != 0 ||
      setsockopt(fd(), SOL_SOCKET, SO_RCVTIMEO, &receiveLimit, sizeof receiveLimit) != 0 ||
      mnl_socket_bind(socket_.get(), groups, MNL_SOCKET_AUTOPID) != 0) {
    const int error = errno;
    close();
    errno = error;
    return false;
  }
  buffer_ = std::make_unique_for_overwrite<std::byte[]>(bufferSize);
  return true;
}

int NetlinkSocket::fd() const { return socket_ ? mnl_socket_get_fd(socket_.get()) : -1; }

bool NetlinkSocket::send(const nlmsghdr& request) {
  return mnl_socket_sendto(socket_.get(), &request, request.nlmsg_len) ==
         static_cast<ssize_t>(request.nlmsg_len);
}

NetlinkSocket::Received NetlinkSocket::receive(bool wait, std::span<const std::byte>& datagram) {
  for (;;) {
    sockaddr_nl sender{};
    iovec part{buffer_.get(), bufferSize};
    msghdr header{};
    header.msg_name = &sender;
    header.msg_namelen = sizeof sender;
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    const ssize_t length = recvmsg(fd(), &header, wait ? 0 : MSG_DONTWAIT);
    if (length < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) return Received::nothing;
      return errno == ENOBUFS ? Received::lost : Received::failed;
    }
    // Other processes can send to this socket; only the kernel has the port 0.
    if (header.msg_namelen != sizeof sender || sender.nl_pid != 0) continue;
    if ((header.msg_flags & MSG_TRUNC) != 0) {
      errno = EMSGSIZE;
      return Received::lost;
    }
    datagram = {buffer_.get(), static_cast<size_t>(length)};
    return Received::datagram;
  }
}

}  // namespace lumen
