#include "lumen/services/system/netfilter/NetlinkFlows.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

#include "lumen/runtime/Log.h"
#include "lumen/services/system/netfilter/NetlinkAttributes.h"
#include "platform/Timer.h"
#include "platform/Watch.h"

namespace lumen {

namespace {

constexpr auto visitLimit = std::chrono::milliseconds(200);

// The kernel fills at most this much of a reply to a dump (NLMSG_GOODSIZE and its growth in
// net/netlink/af_netlink.c).
constexpr size_t replySize = 32UL * 1024;

// Bits of CTA_FILTER_ORIG_FLAGS, one per field of a tuple (net/netfilter/nf_conntrack_netlink.c,
// CTA_FILTER_F_*).
constexpr uint32_t filterDestinationAddress = 1U << 1;
constexpr uint32_t filterProtocol = 1U << 3;
constexpr uint32_t filterDestinationPort = 1U << 5;

struct CloseSocket {
  void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using Socket = std::unique_ptr<mnl_socket, CloseSocket>;

Socket openSocket(int flags) {
  Socket socket(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | flags));
  if (socket && mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) socket.reset();
  if (!socket) lm::logLine("conntrack socket: ", std::strerror(errno));
  return socket;
}

/// A request to ctnetlink, in a buffer that every request of this file fits into.
class Request {
 public:
  Request(uint16_t type, uint16_t flags) : header_(mnl_nlmsg_put_header(buffer_)) {
    header_->nlmsg_type = static_cast<uint16_t>((NFNL_SUBSYS_CTNETLINK << 8) | type);
    header_->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    auto* family = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header_, sizeof(nfgenmsg)));
    family->nfgen_family = AF_INET;
    family->version = NFNETLINK_V0;
  }

  [[nodiscard]] nlmsghdr* header() const { return header_; }

  /// Whether there is room for this attribute and another one.
  [[nodiscard]] bool fits(const nlattr* attribute) const {
    return header_->nlmsg_len + attribute->nla_len + 64U < sizeof buffer_;
  }

  [[nodiscard]] bool sendOn(mnl_socket* socket) const {
    return mnl_socket_sendto(socket, header_, header_->nlmsg_len) >= 0;
  }

 private:
  alignas(nlmsghdr) char buffer_[4096] = {};
  nlmsghdr* header_;
};

// Lets the kernel leave out what is of another protocol or, as far as one filter can say, was sent
// elsewhere.
void filterUdp(const Request& request, const std::set<Endpoint>& destinations) {
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

/// An entry of the kernel's table.
struct Entry {
  Flow flow;
  const nlattr* origin = nullptr;  // the tuple of its first packets
  uint32_t id = 0;                 // in network byte order
};

/// The number in an attribute of this size; 0: it is absent or of another size.
template <typename Number>
Number numberIn(const nlattr* attribute) {
  Number number = 0;
  if (attribute != nullptr && mnl_attr_get_payload_len(attribute) == sizeof number) {
    std::memcpy(&number, mnl_attr_get_payload(attribute), sizeof number);
  }
  return number;
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

Entry entryIn(const nlmsghdr* message) {
  const auto attributes = attributesIn<CTA_MAX + 1>(message);
  const Tuple origin(attributes[CTA_TUPLE_ORIG]);
  return {.flow = {.protocol = origin.protocol,
                   .source = origin.source.address,
                   .destination = origin.destination,
                   .responder = Tuple(attributes[CTA_TUPLE_REPLY]).source},
          .origin = attributes[CTA_TUPLE_ORIG],
          .id = numberIn<uint32_t>(attributes[CTA_ID])};
}

/// One dump of the table.
class Dump {
 public:
  enum class State { running, complete, failed };

  /// `flags` SOCK_NONBLOCK or 0. A dump that cannot start has failed.
  Dump(const Request& request, int flags)
      : socket_(openSocket(flags)), buffer_(replySize / sizeof(nlmsghdr)) {
    if (!socket_) return;
    if (!request.sendOn(socket_.get())) {
      lm::logLine("conntrack dump: ", std::strerror(errno));
      return;
    }
    state_ = State::running;
  }

  [[nodiscard]] int fd() const { return mnl_socket_get_fd(socket_.get()); }
  [[nodiscard]] State state() const { return state_; }

  /// Reads one reply and calls `visit` for each of its entries.
  template <typename Visit>
  State step(const Visit& visit) {
    ssize_t received =
        mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size() * sizeof(nlmsghdr));
    if (received < 0) {
      if (errno == EAGAIN || errno == EINTR) return state_;
      return fail(errno);
    }
    int left = static_cast<int>(received);
    for (const nlmsghdr* entry = buffer_.data(); mnl_nlmsg_ok(entry, left);
         entry = mnl_nlmsg_next(entry, &left)) {
      if (entry->nlmsg_type == NLMSG_DONE) return state_ = State::complete;
      if (entry->nlmsg_type == NLMSG_ERROR) {
        return fail(-static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(entry))->error);
      }
      visit(entryIn(entry));
    }
    return state_;
  }

 private:
  State fail(int error) {
    lm::logLine("conntrack dump: ", std::strerror(error));
    return state_ = State::failed;
  }

  Socket socket_;
  std::vector<nlmsghdr> buffer_;
  State state_ = State::failed;
};

}  // namespace

/// A sweep under way. At its end it notifies its sweeper, which may start the next one from there.
class NetlinkFlows::Sweep {
 public:
  Sweep(NetlinkFlows& flows, const Request& request, std::set<Endpoint> destinations,
        Sweeper& sweeper)
      : flows_(flows),
        sweeper_(sweeper),
        destinations_(std::move(destinations)),
        killer_(openSocket(0)),
        dump_(request, SOCK_NONBLOCK) {
    if (killer_ && dump_.state() == Dump::State::running) {
      watch_.start<&Sweep::readable>(dump_.fd(), *this, lm::watchRead);
    } else {
      failed_.start<&Sweep::end>(*this, 0);
    }
  }

 private:
  void readable(int) {
    Dump::State state = dump_.step([this](const Entry& entry) { judge(entry); });
    if (state != Dump::State::running) end();
  }

  void judge(const Entry& entry) {
    const Flow& flow = entry.flow;
    if (flow.protocol != IPPROTO_UDP || !destinations_.contains(flow.destination)) return;
    if (sweeper_.ends(flow)) destroy(entry);
  }

  void destroy(const Entry& entry) {
    Request request(IPCTNL_MSG_CT_DELETE, NLM_F_ACK);
    if (!request.fits(entry.origin)) return;
    mnl_attr_put(request.header(), CTA_TUPLE_ORIG | NLA_F_NESTED,
                 mnl_attr_get_payload_len(entry.origin), mnl_attr_get_payload(entry.origin));
    // Not another flow between the same endpoints that began meanwhile.
    mnl_attr_put_u32(request.header(), CTA_ID, entry.id);

    alignas(nlmsghdr) char answer[1024];
    if (!request.sendOn(killer_.get()) ||
        mnl_socket_recvfrom(killer_.get(), answer, sizeof answer) < 0) {
      lm::logLine("conntrack delete: ", std::strerror(errno));
      allEnded_ = false;
    }
    // An error in the answer is a flow that has ended by itself.
  }

  void end() {
    watch_.stop();
    Sweeper& sweeper = sweeper_;
    const bool complete = allEnded_ && dump_.state() == Dump::State::complete;
    flows_.sweep_.reset();  // destroys *this
    sweeper.swept(complete);
  }

  NetlinkFlows& flows_;
  Sweeper& sweeper_;
  std::set<Endpoint> destinations_;
  Socket killer_;  // for the deletions, each waits for its answer
  Dump dump_;
  bool allEnded_ = true;  // of the flows that had to end
  lm::Watch watch_;
  lm::Timer failed_;
};

NetlinkFlows::NetlinkFlows() = default;
NetlinkFlows::~NetlinkFlows() = default;

void NetlinkFlows::sweepUdp(const std::set<Endpoint>& destinations, Sweeper& sweeper) {
  Request request(IPCTNL_MSG_CT_GET, NLM_F_DUMP);
  if (!destinations.empty()) filterUdp(request, destinations);
  sweep_ = std::make_unique<Sweep>(*this, request, destinations, sweeper);
}

bool NetlinkFlows::visitTranslated(const std::function<void(const Flow&)>& visit) {
  auto deadline = std::chrono::steady_clock::now() + visitLimit;
  Request request(IPCTNL_MSG_CT_GET, NLM_F_DUMP);
  mnl_attr_put_u32(request.header(), CTA_STATUS, htonl(IPS_DST_NAT));
  mnl_attr_put_u32(request.header(), CTA_STATUS_MASK, htonl(IPS_DST_NAT));
  Dump dump(request, 0);
  while (dump.state() == Dump::State::running) {
    dump.step([&](const Entry& entry) {
      const Flow& flow = entry.flow;
      if (flow.destination != flow.responder) visit(flow);
    });
    if (dump.state() == Dump::State::running && std::chrono::steady_clock::now() > deadline) {
      lm::logLine("conntrack dump: more flows than can be counted");
      return false;
    }
  }
  return dump.state() == Dump::State::complete;
}

}  // namespace lumen
