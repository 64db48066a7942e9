#include "lumen/services/system/netlink/TableReading.h"

#include <algorithm>
#include <utility>
#include <variant>

namespace lumen {
namespace {

void apply(const NetlinkMessage& message, LinkSnapshot& all) {
  if (const auto* is = std::get_if<NetlinkMessage::LinkIs>(&message.what)) {
    all.links[is->status.link.index] = is->status.link;
  } else if (const auto* gone = std::get_if<NetlinkMessage::LinkGone>(&message.what)) {
    all.links.erase(gone->index);
    all.addresses.erase(gone->index);
    all.ipv6Addresses.erase(gone->index);
  } else if (const auto* has = std::get_if<NetlinkMessage::AddressIs>(&message.what)) {
    all.addresses[has->index].insert(has->address);
  } else if (const auto* lost = std::get_if<NetlinkMessage::AddressGone>(&message.what)) {
    all.addresses[lost->index].erase(lost->address);
  } else if (const auto* has6 = std::get_if<NetlinkMessage::Ipv6AddressIs>(&message.what)) {
    all.ipv6Addresses[has6->index].insert(has6->address);
  } else if (const auto* lost6 = std::get_if<NetlinkMessage::Ipv6AddressGone>(&message.what)) {
    all.ipv6Addresses[lost6->index].erase(lost6->address);
  }
}

}  // namespace

void TableReading::take(NetlinkMessage& message, uint32_t request) {
  // A change carries the port and the sequence number of the request that made it, or 0.
  if (message.port == port_ && message.sequence == request) {
    apply(message, all_);
  } else {
    reported_.push_back(std::move(message));
  }
}

bool TableReading::lostAddress() const {
  return std::any_of(reported_.begin(), reported_.end(), [](const NetlinkMessage& message) {
    return std::holds_alternative<NetlinkMessage::AddressGone>(message.what) ||
           std::holds_alternative<NetlinkMessage::Ipv6AddressGone>(message.what);
  });
}

LinkSnapshot TableReading::finish() {
  for (const NetlinkMessage& message : reported_) apply(message, all_);
  return std::move(all_);
}

}  // namespace lumen
