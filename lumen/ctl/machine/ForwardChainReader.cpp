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
#include <cstring>
#include <fstream>
#include <string>

#include "lumen/ctl/machine/LegacyForwardChain.h"
#include "lumen/ctl/machine/NetlinkDump.h"
#include "lumen/ctl/machine/NftForwardChains.h"
#include "platform/Fd.h"

namespace lumenctl {

namespace {

using Buffer = std::array<char, 1024>;

/// Writes the request for a dump of nf_tables.
nlmsghdr* beginDump(Buffer& buffer, uint16_t kind, uint32_t family) {
  nlmsghdr* header = mnl_nlmsg_put_header(buffer.data());
  header->nlmsg_type = static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | kind);
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  auto* body = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
  body->nfgen_family = static_cast<uint8_t>(family);
  body->version = NFNETLINK_V0;
  return header;
}

/// Adds what the dump says.
Dumped dump(const nlmsghdr& request, NftForwardChains& chains) {
  return dumpNetlink(NETLINK_NETFILTER, request,
                     [&](const nlmsghdr& message) { chains.take(message); });
}

/// A dump of all chains, or of all rules.
Dumped dumpAll(uint16_t kind, NftForwardChains& chains) {
  alignas(nlmsghdr) Buffer buffer{};
  return dump(*beginDump(buffer, kind, NFPROTO_UNSPEC), chains);
}

Dumped dumpLinkSets(NftForwardChains& chains) {
  for (const auto& [family, table, set] : chains.linkSets()) {
    alignas(nlmsghdr) Buffer buffer{};
    nlmsghdr* request = beginDump(buffer, NFT_MSG_GETSETELEM, family);
    mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_TABLE, table.c_str());
    mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_SET, set.c_str());
    // The rights were sufficient for the rules, so a set that cannot be read has just gone.
    if (dump(*request, chains) != Dumped::completely) return Dumped::inconsistently;
  }
  return Dumped::completely;
}

std::optional<std::vector<ForwardChain>> readNft() {
  constexpr int attempts = 5;
  for (int i = 0; i < attempts; ++i) {
    NftForwardChains chains;
    Dumped dumped = dumpAll(NFT_MSG_GETCHAIN, chains);
    if (dumped == Dumped::completely) dumped = dumpAll(NFT_MSG_GETRULE, chains);
    if (dumped == Dumped::completely) dumped = dumpLinkSets(chains);
    if (dumped == Dumped::completely) return chains.chains();
    if (dumped == Dumped::failed) return std::nullopt;
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
