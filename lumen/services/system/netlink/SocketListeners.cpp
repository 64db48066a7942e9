#include "lumen/services/system/netlink/SocketListeners.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>

#include "lumen/runtime/Log.h"
#include "lumen/services/system/netlink/ControlGroups.h"
#include "lumen/services/system/netlink/NetlinkAttributes.h"

namespace lumen {

namespace {

// States as bits of the request (net/tcp_states.h).
constexpr uint32_t listening = 1U << 10;
constexpr uint32_t unconnectedUdp = 1U << 7;

constexpr timeval answerLimit{1, 0};

constexpr const char* controlGroups = "/sys/fs/cgroup";

struct Search {
  Endpoint endpoint;
  uint32_t interface = 0;
  std::optional<ListeningSocket> found;
};

bool matches(const ListeningSocket& socket, const Search& search) {
  return (socket.takesAnyAddress || socket.address == search.endpoint.address) &&
         (socket.interface == 0 || socket.interface == search.interface);
}

int takeMessage(const nlmsghdr* message, void* context) {
  auto& search = *static_cast<Search*>(context);
  const auto socket = readListeningSocket(*message);
  if (socket && matches(*socket, search)) search.found = socket;
  return MNL_CB_OK;
}

/// False, with errno, when the kernel cannot tell.
bool dump(mnl_socket* socket, uint8_t family, uint8_t protocol, Search& search) {
  alignas(nlmsghdr) std::array<char, 128> request{};
  nlmsghdr* const header = mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = SOCK_DIAG_BY_FAMILY;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  auto* const wanted =
      static_cast<inet_diag_req_v2*>(mnl_nlmsg_put_extra_header(header, sizeof(inet_diag_req_v2)));
  wanted->sdiag_family = family;
  wanted->sdiag_protocol = protocol;
  wanted->idiag_states = protocol == IPPROTO_TCP ? listening : unconnectedUdp;
  wanted->id.idiag_sport = htons(search.endpoint.port);
  if (mnl_socket_sendto(socket, header, header->nlmsg_len) < 0) return false;
  alignas(nlmsghdr) std::array<char, 32768> answer{};
  int result = MNL_CB_OK;
  while (result == MNL_CB_OK) {
    const ssize_t length = mnl_socket_recvfrom(socket, answer.data(), answer.size());
    if (length < 0) return false;
    result = mnl_cb_run(answer.data(), static_cast<size_t>(length), 0,
                        mnl_socket_get_portid(socket), takeMessage, &search);
  }
  return result == MNL_CB_STOP;
}

std::string nameOf(const ListeningSocket& socket) {
  const std::string group =
      socket.group == 0 ? "" : nameOfControlGroup(controlGroups, socket.group);
  // That of a login says nothing of the program.
  if (!group.empty() && !group.ends_with(".scope")) return group;
  return "a program of user " + std::to_string(socket.user);
}

}  // namespace

std::optional<ListeningSocket> readListeningSocket(const nlmsghdr& message) {
  constexpr size_t fixed = NLMSG_LENGTH(sizeof(inet_diag_msg));
  if (message.nlmsg_type != SOCK_DIAG_BY_FAMILY || message.nlmsg_len < fixed) return std::nullopt;
  inet_diag_msg diag{};
  std::memcpy(&diag, mnl_nlmsg_get_payload(&message), sizeof diag);
  ListeningSocket socket;
  socket.interface = diag.id.idiag_if;
  socket.user = diag.idiag_uid;
  bool ipv6Only = false;
  const auto* const bytes = reinterpret_cast<const std::byte*>(&message);
  const bool whole = visitAttributes(
      {bytes + netlinkAligned(fixed),
       message.nlmsg_len - std::min<size_t>(netlinkAligned(fixed), message.nlmsg_len)},
      [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) == INET_DIAG_SKV6ONLY) {
          ipv6Only = readStruct<uint8_t>(payload(attribute)).value_or(0) != 0;
        } else if (mnl_attr_get_type(&attribute) == INET_DIAG_CGROUP_ID) {
          socket.group = readStruct<uint64_t>(payload(attribute)).value_or(0);
        }
      });
  if (!whole) return std::nullopt;
  if (diag.idiag_family == AF_INET) {
    socket.address = Ipv4Address::fromBytes(diag.id.idiag_src[0]);
    socket.takesAnyAddress = socket.address.isUnspecified();
    return socket;
  }
  in6_addr address = {};
  std::memcpy(&address, diag.id.idiag_src, sizeof address);
  if (IN6_IS_ADDR_UNSPECIFIED(&address)) {
    socket.takesAnyAddress = !ipv6Only;
  } else if (IN6_IS_ADDR_V4MAPPED(&address)) {
    socket.address = Ipv4Address::fromBytes(diag.id.idiag_src[3]);
  }
  return socket;
}

void SocketListeners::Closer::operator()(mnl_socket* socket) const { mnl_socket_close(socket); }

bool SocketListeners::open() {
  if (socket_) return true;
  socket_.reset(mnl_socket_open2(NETLINK_SOCK_DIAG, SOCK_CLOEXEC));
  if (!socket_) return false;
  if (mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) != 0) {
    socket_.reset();
    return false;
  }
  (void)setsockopt(mnl_socket_get_fd(socket_.get()), SOL_SOCKET, SO_RCVTIMEO, &answerLimit,
                   sizeof answerLimit);
  return true;
}

std::optional<std::string> SocketListeners::find(uint8_t protocol, const Endpoint& endpoint,
                                                 uint32_t interface) {
  Search search{.endpoint = endpoint, .interface = interface, .found = {}};
  for (const uint8_t family : {uint8_t{AF_INET}, uint8_t{AF_INET6}}) {
    const bool asked = open() && dump(socket_.get(), family, protocol, search);
    if (search.found) return nameOf(*search.found);
    if (asked) continue;
    // What the kernel still says of this question must not answer the next one.
    const int error = errno;
    socket_.reset();
    // A kernel without IPv6 knows nothing of its sockets.
    if (family == AF_INET && !failed_) {
      lm::logLine("the ports of this router's own programs are not known: ", std::strerror(error));
      failed_ = true;
    }
    break;
  }
  return std::nullopt;
}

}  // namespace lumen
