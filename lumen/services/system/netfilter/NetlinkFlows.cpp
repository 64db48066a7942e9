#include "lumen/services/system/netfilter/NetlinkFlows.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>

#include <chrono>
#include <utility>

#include "lumen/runtime/Log.h"
#include "lumen/services/system/netfilter/FlowTable.h"
#include "lumen/services/system/netfilter/NetlinkAttributes.h"

namespace lumen {

namespace {

constexpr auto visitLimit = std::chrono::milliseconds(200);

// Bits of CTA_FILTER_ORIG_FLAGS, one per field of a tuple (net/netfilter/nf_conntrack_netlink.c,
// CTA_FILTER_F_*).
constexpr uint32_t filterDestinationAddress = 1U << 1;
constexpr uint32_t filterProtocol = 1U << 3;
constexpr uint32_t filterDestinationPort = 1U << 5;

// Lets the kernel leave out what is of another protocol or, as far as one filter can say, was sent
// elsewhere.
void filterUdp(const FlowRequest& request, const std::set<Endpoint>& destinations) {
  const Endpoint& first = *destinations.begin();
  bool oneAddress = first.address == destinations.rbegin()->address;
  bool onePort = destinations.size() == 1;
  nlmsghdr* header = request.header();

  nlattr* filter = mnl_attr_nest_start(header, CTA_FILTER);
  mnl_attr_put_u32(header, CTA_FILTER_ORIG_FLAGS,
                   filterProtocol | (oneAddress ? filterDestinationAddress : 0) |
                       (onePort ? filterDestinationPort : 0));
  mnl_attr_put_u32(header, CTA_FILTER_REPLY_FLAGS, 0);
  mnl_attr_nest_end(header, filter);

  nlattr* tuple = mnl_attr_nest_start(header, CTA_TUPLE_ORIG);
  nlattr* ip = mnl_attr_nest_start(header, CTA_TUPLE_IP);
  mnl_attr_put_u32(header, CTA_IP_V4_DST, first.address.bytes());
  mnl_attr_nest_end(header, ip);
  nlattr* transport = mnl_attr_nest_start(header, CTA_TUPLE_PROTO);
  mnl_attr_put_u8(header, CTA_PROTO_NUM, IPPROTO_UDP);
  mnl_attr_put_u16(header, CTA_PROTO_DST_PORT, htons(first.port));
  mnl_attr_nest_end(header, transport);
  mnl_attr_nest_end(header, tuple);
}

/// One direction of a flow, as its own packets say it.
struct Tuple {
  explicit Tuple(const nlattr* nest) {
    const auto parts = attributesIn<CTA_TUPLE_MAX + 1>(nest);
    const auto ip = attributesIn<CTA_IP_MAX + 1>(parts[CTA_TUPLE_IP]);
    const auto transport = attributesIn<CTA_PROTO_MAX + 1>(parts[CTA_TUPLE_PROTO]);
    const auto endpoint = [&](size_t address, size_t port) {
      return Endpoint{.address = Ipv4Address::fromBytes(numberIn<uint32_t>(ip[address])),
                      .port = ntohs(numberIn<uint16_t>(transport[port]))};
    };
    protocol = numberIn<uint8_t>(transport[CTA_PROTO_NUM]);
    source = endpoint(CTA_IP_V4_SRC, CTA_PROTO_SRC_PORT);
    destination = endpoint(CTA_IP_V4_DST, CTA_PROTO_DST_PORT);
  }

  uint8_t protocol = 0;
  Endpoint source;
  Endpoint destination;
};

Flow flowIn(const FlowEntry& entry) {
  const Tuple origin(entry.origin);
  return {.protocol = origin.protocol,
          .source = origin.source.address,
          .destination = origin.destination,
          .responder = Tuple(entry.reply).source};
}

}  // namespace

/// A sweep under way. At its end it notifies its sweeper, which may start the next one from there.
class NetlinkFlows::Sweep : private FlowSweep::Judge {
 public:
  Sweep(NetlinkFlows& flows, const FlowRequest& request, std::set<Endpoint> destinations,
        Sweeper& sweeper)
      : flows_(flows),
        sweeper_(sweeper),
        destinations_(std::move(destinations)),
        sweep_(request, *this) {}

 private:
  bool ends(const FlowEntry& entry) override {
    const Flow flow = flowIn(entry);
    return flow.protocol == IPPROTO_UDP && destinations_.contains(flow.destination) &&
           sweeper_.ends(flow);
  }

  void over(bool complete) override {
    Sweeper& sweeper = sweeper_;
    flows_.sweep_.reset();  // destroys *this
    sweeper.swept(complete);
  }

  NetlinkFlows& flows_;
  Sweeper& sweeper_;
  std::set<Endpoint> destinations_;
  FlowSweep sweep_;
};

NetlinkFlows::NetlinkFlows() = default;
NetlinkFlows::~NetlinkFlows() = default;

void NetlinkFlows::sweepUdp(const std::set<Endpoint>& destinations, Sweeper& sweeper) {
  const FlowRequest request(AF_INET, IPCTNL_MSG_CT_GET, NLM_F_DUMP);
  if (!destinations.empty()) filterUdp(request, destinations);
  sweep_ = std::make_unique<Sweep>(*this, request, destinations, sweeper);
}

bool NetlinkFlows::visitTranslated(const std::function<void(const Flow&)>& visit) {
  auto deadline = std::chrono::steady_clock::now() + visitLimit;
  const FlowRequest request(AF_INET, IPCTNL_MSG_CT_GET, NLM_F_DUMP);
  mnl_attr_put_u32(request.header(), CTA_STATUS, htonl(IPS_DST_NAT));
  mnl_attr_put_u32(request.header(), CTA_STATUS_MASK, htonl(IPS_DST_NAT));
  FlowDump dump(request, 0);
  while (dump.state() == FlowDump::State::running) {
    dump.step([&](const FlowEntry& entry) {
      const Flow flow = flowIn(entry);
      if (flow.destination != flow.responder) visit(flow);
    });
    if (dump.state() == FlowDump::State::running && std::chrono::steady_clock::now() > deadline) {
      lm::logLine("conntrack dump: more flows than can be counted");
      return false;
    }
  }
  return dump.state() == FlowDump::State::complete;
}

}  // namespace lumen
