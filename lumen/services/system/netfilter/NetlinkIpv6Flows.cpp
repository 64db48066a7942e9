#include "lumen/services/system/netfilter/NetlinkIpv6Flows.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>

#include <climits>
#include <cstring>

#include "lumen/services/system/netfilter/FlowTable.h"
#include "lumen/services/system/netfilter/NetlinkAttributes.h"

namespace lumen {

namespace {

// The kernel's bitmap is made of its long words (include/linux/bitmap.h).
bool hasLabel(const nlattr* labels, uint32_t label) {
  if (labels == nullptr) return false;
  constexpr size_t bits = sizeof(unsigned long) * CHAR_BIT;
  const size_t offset = label / bits * sizeof(unsigned long);
  unsigned long word = 0;
  if (offset + sizeof word > mnl_attr_get_payload_len(labels)) return false;
  std::memcpy(&word, static_cast<const char*>(mnl_attr_get_payload(labels)) + offset, sizeof word);
  return (word >> (label % bits) & 1U) != 0;
}

// Bit of CTA_FILTER_ORIG_FLAGS (net/netfilter/nf_conntrack_netlink.c, CTA_FILTER_F_PROTO_NUM).
constexpr uint32_t filterProtocol = 1U << 3;

// Lets the kernel leave out what is of another protocol.
void filterUdp(const FlowRequest& request) {
  nlmsghdr* const header = request.header();
  nlattr* const filter = mnl_attr_nest_start(header, CTA_FILTER);
  mnl_attr_put_u32(header, CTA_FILTER_ORIG_FLAGS, filterProtocol);
  mnl_attr_put_u32(header, CTA_FILTER_REPLY_FLAGS, 0);
  mnl_attr_nest_end(header, filter);
  nlattr* const tuple = mnl_attr_nest_start(header, CTA_TUPLE_ORIG);
  nlattr* const transport = mnl_attr_nest_start(header, CTA_TUPLE_PROTO);
  mnl_attr_put_u8(header, CTA_PROTO_NUM, IPPROTO_UDP);
  mnl_attr_nest_end(header, transport);
  mnl_attr_nest_end(header, tuple);
}

Ipv6Address addressIn(const nlattr* attribute) {
  Ipv6Address::Bytes bytes = {};
  if (attribute != nullptr && mnl_attr_get_payload_len(attribute) == bytes.size()) {
    std::memcpy(bytes.data(), mnl_attr_get_payload(attribute), bytes.size());
  }
  return Ipv6Address(bytes);
}

}  // namespace

/// A sweep under way. At its end it notifies its sweeper, which may start the next one from there.
class NetlinkIpv6Flows::Sweep : private FlowSweep::Judge {
 public:
  Sweep(NetlinkIpv6Flows& flows, const FlowRequest& request, uint32_t label, Sweeper& sweeper)
      : flows_(flows), sweeper_(sweeper), label_(label), sweep_(request, *this) {}

 private:
  bool ends(const FlowEntry& entry) override {
    if (!hasLabel(entry.labels, label_)) return false;
    const auto parts = attributesIn<CTA_TUPLE_MAX + 1>(entry.origin);
    const auto ip = attributesIn<CTA_IP_MAX + 1>(parts[CTA_TUPLE_IP]);
    const auto transport = attributesIn<CTA_PROTO_MAX + 1>(parts[CTA_TUPLE_PROTO]);
    if (numberIn<uint8_t>(transport[CTA_PROTO_NUM]) != IPPROTO_UDP) return false;
    return sweeper_.ends({.source = addressIn(ip[CTA_IP_V6_SRC]),
                          .destination = addressIn(ip[CTA_IP_V6_DST]),
                          .port = ntohs(numberIn<uint16_t>(transport[CTA_PROTO_DST_PORT]))});
  }

  void over(bool complete) override {
    Sweeper& sweeper = sweeper_;
    flows_.sweep_.reset();  // destroys *this
    sweeper.swept(complete);
  }

  NetlinkIpv6Flows& flows_;
  Sweeper& sweeper_;
  const uint32_t label_;
  FlowSweep sweep_;
};

NetlinkIpv6Flows::NetlinkIpv6Flows() = default;
NetlinkIpv6Flows::~NetlinkIpv6Flows() = default;

void NetlinkIpv6Flows::sweepUdp(uint32_t label, Sweeper& sweeper) {
  const FlowRequest request(AF_INET6, IPCTNL_MSG_CT_GET, NLM_F_DUMP);
  filterUdp(request);
  sweep_ = std::make_unique<Sweep>(*this, request, label, sweeper);
}

}  // namespace lumen
