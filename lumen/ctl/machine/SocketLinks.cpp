#include "lumen/ctl/machine/SocketLinks.h"

#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <memory>

namespace lumenctl {

namespace {

// States as bits of the request (net/tcp_states.h).
constexpr uint32_t listening = 1U << 10;
constexpr uint32_t unconnectedUdp = 1U << 7;

struct Closer {
  void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using Socket = std::unique_ptr<mnl_socket, Closer>;

int takeMessage(const nlmsghdr* message, void* links) {
  addSocketLink(*message, *static_cast<SocketLinks*>(links));
  return MNL_CB_OK;
}

void addAll(uint8_t protocol, uint32_t states, SocketLinks& links) {
  const Socket socket(mnl_socket_open2(NETLINK_SOCK_DIAG, SOCK_CLOEXEC));
  if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) return;
  alignas(nlmsghdr) std::array<char, 128> request{};
  nlmsghdr* header = mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = SOCK_DIAG_BY_FAMILY;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  auto* wanted =
      static_cast<inet_diag_req_v2*>(mnl_nlmsg_put_extra_header(header, sizeof(inet_diag_req_v2)));
  wanted->sdiag_family = AF_INET;
  wanted->sdiag_protocol = protocol;
  wanted->idiag_states = states;
  if (mnl_socket_sendto(socket.get(), header, header->nlmsg_len) < 0) return;
  alignas(nlmsghdr) std::array<char, 32768> answer{};
  int result = MNL_CB_OK;
  while (result == MNL_CB_OK) {
    const ssize_t length = mnl_socket_recvfrom(socket.get(), answer.data(), answer.size());
    if (length < 0) return;
    result = mnl_cb_run(answer.data(), static_cast<size_t>(length), 0,
                        mnl_socket_get_portid(socket.get()), takeMessage, &links);
  }
}

}  // namespace

void addSocketLink(const nlmsghdr& message, SocketLinks& links) {
  if (message.nlmsg_type != SOCK_DIAG_BY_FAMILY ||
      message.nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
    return;
  }
  inet_diag_msg socket{};
  std::memcpy(&socket, mnl_nlmsg_get_payload(&message), sizeof socket);
  if (socket.id.idiag_if != 0) links[socket.idiag_inode] = socket.id.idiag_if;
}

SocketLinks readSocketLinks() {
  SocketLinks links;
  addAll(IPPROTO_TCP, listening, links);
  addAll(IPPROTO_UDP, unconnectedUdp, links);
  return links;
}

}  // namespace lumenctl
