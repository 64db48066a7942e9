#include "lumen/services/system/netfilter/FlowTable.h"

#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "lumen/runtime/Log.h"
#include "lumen/services/system/netfilter/NetlinkAttributes.h"

namespace lumen {

namespace {

// The kernel fills at most this much of a reply to a dump (NLMSG_GOODSIZE and its growth in
// net/netlink/af_netlink.c).
constexpr size_t replySize = 32UL * 1024;

MnlSocket openSocket(int flags) {
  MnlSocket socket(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | flags));
  if (socket && mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) socket.reset();
  if (!socket) lm::logLine("conntrack socket: ", std::strerror(errno));
  return socket;
}

FlowEntry entryIn(const nlmsghdr* message) {
  const auto attributes = attributesIn<CTA_MAX + 1>(message);
  FlowEntry entry = {.origin = attributes[CTA_TUPLE_ORIG],
                     .reply = attributes[CTA_TUPLE_REPLY],
                     .labels = attributes[CTA_LABELS],
                     .id = numberIn<uint32_t>(attributes[CTA_ID])};
  if (entry.origin != nullptr) {
    entry.family = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(message))->nfgen_family;
  }
  return entry;
}

}  // namespace

FlowRequest::FlowRequest(uint8_t family, uint16_t type, uint16_t flags)
    : header_(mnl_nlmsg_put_header(buffer_)) {
  header_->nlmsg_type = static_cast<uint16_t>((NFNL_SUBSYS_CTNETLINK << 8) | type);
  header_->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
  auto* generic = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header_, sizeof(nfgenmsg)));
  generic->nfgen_family = family;
  generic->version = NFNETLINK_V0;
}

bool FlowRequest::fits(const nlattr* attribute) const {
  return header_->nlmsg_len + attribute->nla_len + 64U < sizeof buffer_;
}

bool FlowRequest::sendOn(mnl_socket* socket) const {
  return mnl_socket_sendto(socket, header_, header_->nlmsg_len) >= 0;
}

FlowDump::FlowDump(const FlowRequest& request, int flags)
    : socket_(openSocket(flags)), buffer_(replySize / sizeof(nlmsghdr)) {
  if (!socket_) return;
  if (!request.sendOn(socket_.get())) {
    lm::logLine("conntrack dump: ", std::strerror(errno));
    return;
  }
  state_ = State::running;
}

FlowDump::State FlowDump::step(const Visit& visit) {
  const ssize_t received =
      mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size() * sizeof(nlmsghdr));
  if (received < 0) {
    if (errno == EAGAIN || errno == EINTR) return state_;
    return fail(errno);
  }
  int left = static_cast<int>(received);
  for (const nlmsghdr* message = buffer_.data(); mnl_nlmsg_ok(message, left);
       message = mnl_nlmsg_next(message, &left)) {
    if (message->nlmsg_type == NLMSG_DONE) return state_ = State::complete;
    if (message->nlmsg_type == NLMSG_ERROR) {
      return fail(-static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message))->error);
    }
    if (const FlowEntry entry = entryIn(message); entry.origin != nullptr) visit(entry);
  }
  return state_;
}

FlowDump::State FlowDump::fail(int error) {
  lm::logLine("conntrack dump: ", std::strerror(error));
  return state_ = State::failed;
}

FlowSweep::FlowSweep(const FlowRequest& request, Judge& judge)
    : judge_(judge), killer_(openSocket(0)), dump_(request, SOCK_NONBLOCK) {
  if (killer_ && dump_.state() == FlowDump::State::running) {
    watch_.start<&FlowSweep::readable>(dump_.fd(), *this, lm::watchRead);
  } else {
    failed_.start<&FlowSweep::end>(*this, 0);
  }
}

void FlowSweep::readable(int) {
  const FlowDump::State state = dump_.step([this](const FlowEntry& entry) {
    if (judge_.ends(entry)) destroy(entry);
  });
  if (state != FlowDump::State::running) end();
}

void FlowSweep::destroy(const FlowEntry& entry) {
  FlowRequest request(entry.family, IPCTNL_MSG_CT_DELETE, NLM_F_ACK);
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

void FlowSweep::end() {
  watch_.stop();
  judge_.over(allEnded_ && dump_.state() == FlowDump::State::complete);
}

}  // namespace lumen
