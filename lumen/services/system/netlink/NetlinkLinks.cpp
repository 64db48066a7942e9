#include "lumen/services/system/netlink/NetlinkLinks.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/Time.h"
#include "lumen/services/system/netlink/NetlinkRoute.h"
#include "lumen/services/system/netlink/TableReading.h"

namespace lumen {
namespace {

// A table that changes while it is read is read again at once, up to this often, then after a
// pause that lets the other work of the loop go on.
constexpr int tries = 10;
constexpr std::chrono::milliseconds pause(100);

// More come from a routing daemon, which restores them itself.
constexpr size_t maxRoutes = 4096;  // of one family

// A flood of changes must not starve the rest of the loop.
constexpr int datagramsInOneTurn = 64;

/// A request with a fixed part and room for a few attributes.
template <typename Fixed>
class Request {
 public:
  Request(uint16_t type, uint16_t flags) : header_(mnl_nlmsg_put_header(buffer_.data())) {
    header_->nlmsg_type = type;
    header_->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    fixed_ = static_cast<Fixed*>(mnl_nlmsg_put_extra_header(header_, sizeof(Fixed)));
  }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  [[nodiscard]] nlmsghdr& header() { return *header_; }
  [[nodiscard]] Fixed& fixed() { return *fixed_; }

 private:
  alignas(nlmsghdr) std::array<std::byte, 256> buffer_{};
  nlmsghdr* header_;
  Fixed* fixed_;
};

void logFailure(const char* what) { lm::logLine("interfaces: ", what, ": ", strerror(errno)); }

}  // namespace

void NetlinkLinks::start(Listener& listener) {
  listener_ = &listener;
  readTables();
}

std::optional<LinkStatus> NetlinkLinks::read(uint32_t index) {
  Request<ifinfomsg> query(RTM_GETLINK, NLM_F_ACK);
  query.fixed().ifi_index = static_cast<int>(index);
  std::optional<LinkStatus> found;
  const int error = command(query.header(), [&](NetlinkMessage& m) {
    if (auto* is = std::get_if<NetlinkMessage::LinkIs>(&m.what)) found = std::move(is->status);
  });
  return error == 0 ? found : std::nullopt;
}

Result<void> NetlinkLinks::setUp(uint32_t index, bool up) {
  Request<ifinfomsg> change(RTM_NEWLINK, NLM_F_ACK);
  change.fixed().ifi_index = static_cast<int>(index);
  change.fixed().ifi_change = IFF_UP;
  change.fixed().ifi_flags = up ? IFF_UP : 0;
  const int error = command(change.header(), [](NetlinkMessage&) {});
  if (error != 0) return Failure{strerror(error)};
  return {};
}

Result<std::vector<Route>> NetlinkLinks::routes(uint32_t index) {
  std::vector<Route> all;
  for (const int family : {AF_INET, AF_INET6}) {
    std::vector<Route> found;
    Answer answer = Answer::interrupted;
    for (int i = 0; i < tries && answer == Answer::interrupted; ++i) {
      found.clear();
      answer = dumpRoutes(family, index, found);
    }
    if (answer != Answer::complete) return Failure{"the link's routes could not be read"};
    std::move(found.begin(), found.end(), std::back_inserter(all));
  }
  return all;
}

int NetlinkLinks::addRoute(const Route& route, uint32_t index) {
  std::vector<std::byte> bytes = makeRouteRequest(route, index);
  if (bytes.empty()) return EINVAL;
  return command(*reinterpret_cast<nlmsghdr*>(bytes.data()), [](NetlinkMessage&) {});
}

void NetlinkLinks::readTables() {
  watch_.stop();
  Answer answer = Answer::interrupted;
  LinkSnapshot all;
  for (int i = 0; i < tries && answer == Answer::interrupted; ++i) answer = tryReadTables(all);
  if (answer != Answer::complete) {
    lm::logLine("interfaces: could not read the kernel's tables, trying again");
    retry_.start<&NetlinkLinks::readTables>(*this, timerDelay(pause));
    return;
  }
  watch_.start<&NetlinkLinks::readChanges>(changes_.fd(), *this, lm::watchRead);
  listener_->tablesRead(all);
}

NetlinkLinks::Answer NetlinkLinks::tryReadTables(LinkSnapshot& all) {
  if (!changes_.open(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR, receiveBuffer_)) {
    logFailure("netlink socket");
    return Answer::failed;
  }
  TableReading reading(changes_.port());
  const auto sink = [&](NetlinkMessage& m) { reading.take(m, sequence_); };
  int error = 0;
  Request<ifinfomsg> links(RTM_GETLINK, NLM_F_DUMP);
  Answer answer = exchange(changes_, links.header(), error, sink);
  if (answer != Answer::complete || error != 0) return error == 0 ? answer : Answer::failed;
  // A kernel without IPv6 answers for all families, once more.
  const auto readAddresses = [&] {
    for (const uint8_t family : {uint8_t{AF_INET}, uint8_t{AF_INET6}}) {
      Request<ifaddrmsg> addresses(RTM_GETADDR, NLM_F_DUMP);
      addresses.fixed().ifa_family = family;
      answer = exchange(changes_, addresses.header(), error, sink);
      if (answer != Answer::complete || error != 0) return;
    }
  };
  readAddresses();
  if (answer == Answer::complete && error == 0 && reading.lostAddress()) readAddresses();
  all = reading.finish();
  return error == 0 ? answer : Answer::failed;
}

void NetlinkLinks::readChanges(int /*fd*/) {
  for (int i = 0; i < datagramsInOneTurn; ++i) {
    std::span<const std::byte> datagram;
    switch (changes_.receive(false, datagram)) {
      case NetlinkSocket::Received::nothing:
        return;
      case NetlinkSocket::Received::datagram:
        break;
      case NetlinkSocket::Received::lost:
      case NetlinkSocket::Received::failed:
        logFailure("changes were lost, reading everything again");
        return readTables();
    }
    const auto messages = readNetlink(datagram);
    if (!messages) {
      lm::logLine("interfaces: malformed change (", messages.why(), "), reading everything again");
      return readTables();
    }
    for (const NetlinkMessage& change : *messages) notifyListener(change);
  }
}

void NetlinkLinks::notifyListener(const NetlinkMessage& change) {
  if (const auto* is = std::get_if<NetlinkMessage::LinkIs>(&change.what)) {
    listener_->linkChanged(is->status.link);
  } else if (const auto* gone = std::get_if<NetlinkMessage::LinkGone>(&change.what)) {
    listener_->linkGone(gone->index);
  } else if (const auto* has = std::get_if<NetlinkMessage::AddressIs>(&change.what)) {
    listener_->addressAdded(has->index, has->address);
  } else if (const auto* lost = std::get_if<NetlinkMessage::AddressGone>(&change.what)) {
    listener_->addressRemoved(lost->index, lost->address);
  } else if (const auto* has6 = std::get_if<NetlinkMessage::Ipv6AddressIs>(&change.what)) {
    listener_->ipv6AddressAdded(has6->index, has6->address);
  } else if (const auto* lost6 = std::get_if<NetlinkMessage::Ipv6AddressGone>(&change.what)) {
    listener_->ipv6AddressRemoved(lost6->index, lost6->address);
  }
}

NetlinkLinks::Answer NetlinkLinks::exchange(NetlinkSocket& socket, nlmsghdr& request, int& error,
                                            const Sink& sink) {
  request.nlmsg_seq = ++sequence_;
  if (!socket.send(request)) {
    logFailure("netlink request");
    return Answer::failed;
  }
  bool interrupted = false;
  for (;;) {
    std::span<const std::byte> datagram;
    switch (socket.receive(true, datagram)) {
      case NetlinkSocket::Received::datagram:
        break;
      case NetlinkSocket::Received::lost:
        return Answer::interrupted;
      case NetlinkSocket::Received::nothing:
      case NetlinkSocket::Received::failed:
        logFailure("netlink answer");
        return Answer::failed;
    }
    auto messages = readNetlink(datagram);
    if (!messages) {
      lm::logLine("interfaces: malformed netlink answer: ", messages.why());
      return Answer::failed;
    }
    for (NetlinkMessage& m : *messages) {
      const bool ours = m.sequence == request.nlmsg_seq;
      interrupted = interrupted || (ours && m.interrupted);
      if (const auto* answered = std::get_if<NetlinkMessage::Answered>(&m.what)) {
        if (!ours) continue;
        error = answered->error;
        return interrupted ? Answer::interrupted : Answer::complete;
      }
      sink(m);
    }
  }
}

NetlinkLinks::Answer NetlinkLinks::request(nlmsghdr& request, int& error, const Sink& sink) {
  if (requests_.fd() < 0 && !requests_.open(0, 0)) {
    logFailure("netlink socket");
    return Answer::failed;
  }
  const Answer answer = exchange(requests_, request, error, sink);
  if (answer != Answer::complete)
    requests_.close();  // the rest of the answer must not be taken for the next one
  return answer;
}

int NetlinkLinks::command(nlmsghdr& message, const Sink& sink) {
  int error = 0;
  return request(message, error, sink) == Answer::complete ? error : EIO;
}

NetlinkLinks::Answer NetlinkLinks::dumpRoutes(int family, uint32_t index,
                                              std::vector<Route>& found) {
  Request<rtmsg> query(RTM_GETROUTE, NLM_F_DUMP);
  query.fixed().rtm_family = static_cast<uint8_t>(family);
  mnl_attr_put_u32(&query.header(), RTA_OIF, index);
  int error = 0;
  const Answer answer = request(query.header(), error, [&](NetlinkMessage& m) {
    auto* is = std::get_if<NetlinkMessage::RouteIs>(&m.what);
    // A kernel without IPv6 answers for all families.
    if (!is || is->kernelMade || is->family != static_cast<uint32_t>(family)) return;
    if (std::find(is->links.begin(), is->links.end(), index) == is->links.end()) return;
    if (found.size() < maxRoutes) found.push_back({index, is->gateway, std::move(is->content)});
  });
  return error == 0 ? answer : Answer::failed;
}

}  // namespace lumen
