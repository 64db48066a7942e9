#include "lumen/ctl/machine/ForwardChainReader.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
// After netinet/in.h, whose types it uses.
#include <linux/netfilter_ipv4/ip_tables.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "lumen/ctl/machine/LegacyForwardChain.h"
#include "lumen/ctl/machine/NftForwardChains.h"
#include "platform/Fd.h"

namespace lumenctl {

namespace {

struct Closer {
  void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using Socket = std::unique_ptr<mnl_socket, Closer>;

int takeMessage(const nlmsghdr* message, void* chains) {
  static_cast<NftForwardChains*>(chains)->take(*message);
  return MNL_CB_OK;
}

/// Dumps a table of nf_tables. False, with errno, when that fails; EINTR: it changed during the
/// dump.
bool dump(mnl_socket* socket, uint16_t kind, NftForwardChains& chains) {
  alignas(nlmsghdr) std::array<char, 64> request{};
  nlmsghdr* header = mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | kind);
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  auto* family = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
  family->version = NFNETLINK_V0;
  if (mnl_socket_sendto(socket, header, header->nlmsg_len) < 0) return false;
  alignas(nlmsghdr) std::array<char, 32768> answer{};
  while (true) {
    const ssize_t length = mnl_socket_recvfrom(socket, answer.data(), answer.size());
    if (length < 0) return false;
    const int result = mnl_cb_run(answer.data(), static_cast<size_t>(length), 0,
                                  mnl_socket_get_portid(socket), takeMessage, &chains);
    if (result != MNL_CB_OK) return result == MNL_CB_STOP;
  }
}

std::optional<std::vector<ForwardChain>> readNft() {
  constexpr int attempts = 5;
  for (int i = 0; i < attempts; ++i) {
    const Socket socket(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC));
    if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) return std::nullopt;
    NftForwardChains chains;
    if (dump(socket.get(), NFT_MSG_GETCHAIN, chains) &&
        dump(socket.get(), NFT_MSG_GETRULE, chains)) {
      return chains.chains();
    }
    if (errno != EINTR) return std::nullopt;
  }
  return std::nullopt;
}

/// Whether legacy iptables have created their table "filter" here. Asking for it would create it.
bool hasLegacyTable() {
  std::ifstream names("/proc/net/ip_tables_names");
  for (std::string name; std::getline(names, name);) {
    if (name == "filter") return true;
  }
  return false;
}

bool readLegacy(std::vector<ForwardChain>& chains) {
  const lm::Fd socket(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW));
  ipt_getinfo info{};
  std::strcpy(info.name, "filter");
  socklen_t length = sizeof info;
  if (getsockopt(socket.get(), IPPROTO_IP, IPT_SO_GET_INFO, &info, &length) != 0) return false;
  std::vector<std::byte> entries(sizeof(ipt_get_entries) + info.size);
  ipt_get_entries request{};
  std::strcpy(request.name, "filter");
  request.size = info.size;
  std::memcpy(entries.data(), &request, sizeof request);
  length = static_cast<socklen_t>(entries.size());
  if (getsockopt(socket.get(), IPPROTO_IP, IPT_SO_GET_ENTRIES, entries.data(), &length) != 0) {
    return false;
  }
  LegacyLayout layout;
  layout.forward = info.hook_entry[NF_INET_FORWARD];
  layout.forwardEnd = info.underflow[NF_INET_FORWARD];
  // The table's hooks; the others have no place in it.
  for (const auto hook : {NF_INET_LOCAL_IN, NF_INET_FORWARD, NF_INET_LOCAL_OUT}) {
    layout.builtInEnd = std::max(layout.builtInEnd, info.underflow[hook]);
  }
  chains.push_back(
      readLegacyForwardChain(std::span(entries).subspan(sizeof(ipt_get_entries)), layout));
  return true;
}

}  // namespace

std::optional<std::vector<ForwardChain>> readForwardChains() {
  std::optional<std::vector<ForwardChain>> chains = readNft();
  if (chains && hasLegacyTable() && !readLegacy(*chains)) return std::nullopt;
  return chains;
}

}  // namespace lumenctl
