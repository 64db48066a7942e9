#include "lumen/ctl/machine/NetlinkDump.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <memory>

namespace lumenctl {

namespace {

using Take = std::function<void(const nlmsghdr&)>;

struct Closer {
  void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};

int takeMessage(const nlmsghdr* message, void* take) {
  (**static_cast<const Take**>(take))(*message);
  return MNL_CB_OK;
}

}  // namespace

Dumped dumpNetlink(int bus, const nlmsghdr& request, const Take& take) {
  const std::unique_ptr<mnl_socket, Closer> socket(mnl_socket_open2(bus, SOCK_CLOEXEC));
  if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0 ||
      mnl_socket_sendto(socket.get(), &request, request.nlmsg_len) < 0) {
    return Dumped::failed;
  }
  const Take* taker = &take;
  alignas(nlmsghdr) std::array<char, 32768> answer{};
  while (true) {
    const ssize_t length = mnl_socket_recvfrom(socket.get(), answer.data(), answer.size());
    if (length < 0) return Dumped::failed;
    const int result = mnl_cb_run(answer.data(), static_cast<size_t>(length), 0,
                                  mnl_socket_get_portid(socket.get()), takeMessage, &taker);
    if (result == MNL_CB_STOP) return Dumped::completely;
    if (result != MNL_CB_OK) return errno == EINTR ? Dumped::inconsistently : Dumped::failed;
  }
}

}  // namespace lumenctl
