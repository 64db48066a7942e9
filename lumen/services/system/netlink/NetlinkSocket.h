#pragma once

#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace lumen {

/// One rtnetlink socket; it closes with its holder.
class NetlinkSocket {
 public:
  enum class Received {
    datagram,
    nothing,  ///< none has arrived (in time)
    lost,     ///< datagrams have been dropped because the buffer was full
    failed,   ///< errno says why
  };

  NetlinkSocket() = default;

  /// Opens it, subscribed to `groups` (RTMGRP_*), with a receive buffer of `receiveBuffer` bytes
  /// (0: the system's default). False, with errno, when that fails; the socket is then closed.
  [[nodiscard]] bool open(unsigned groups, int receiveBuffer);
  void close() { socket_.reset(); }

  /// Below 0 when it is not open.
  [[nodiscard]] int fd() const;

  /// The number by which the kernel addresses it, while it is open.
  [[nodiscard]] uint32_t port() const { return mnl_socket_get_portid(socket_.get()); }

  /// The kernel answers a request while it is sent. False, with errno, when it refuses the request.
  [[nodiscard]] bool send(const nlmsghdr& request);

  /// The next datagram from the kernel, valid until the next call. `wait`: for at most five
  /// seconds, far longer than the kernel ever takes for an answer.
  [[nodiscard]] Received receive(bool wait, std::span<const std::byte>& datagram);

 private:
  struct Closer {
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
  };

  std::unique_ptr<mnl_socket, Closer> socket_;
  std::unique_ptr<std::byte[]> buffer_;  // touched as far as datagrams fill it
};

}  // namespace lumen
