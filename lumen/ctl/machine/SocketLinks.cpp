#include "lumen/ctl/machine/SocketLinks.h"

#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstring>

#include "lumen/ctl/machine/NetlinkDump.h"

namespace lumenctl {

namespace {

// States as bits of the request (net/tcp_states.h).
constexpr uint32_t listening = 1U << 10;
constexpr uint32_t unconnectedUdp = 1U << 7;

void addAll(uint8_t protocol, uint32_t states, SocketLinks& links) {
  alignas(nlmsghdr) std::array<char, 128> request{};
  nlmsghdr* header = mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = SOCK_DIAG_BY_FAMILY;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  auto* wanted =
      static_cast<inet_diag_req_v2*>(mnl_nlmsg_put_extra_header(header, sizeof(inet_diag_req_v2)));
  wanted->sdiag_family = AF_INET;
  wanted->sdiag_protocol = protocol;
  wanted->idiag_states = states;
  (void)dumpNetlink(NETLINK_SOCK_DIAG, *header,
                    [&](const nlmsghdr& message) { addSocketLink(message, links); });
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
