#include "lumen/services/broker/Rights.h"

#include <algorithm>

#include "platform/Keys.h"

namespace lumen {

namespace {

template <typename Range, typename Value>
bool contains(const Range& range, const Value& value) {
  return std::find(range.begin(), range.end(), value) != range.end();
}

}  // namespace

Rights::Rights(const Peer& peer, const Services& services, std::optional<gid_t> administrators)
    : administrator_(peer.user == 0 || (administrators && contains(peer.groups, *administrators))),
      services_(services.servicesOf(peer.user)),
      mayAsk_(administrator_ ||
              std::any_of(services_.begin(), services_.end(),
                          [&](uint32_t number) { return services.mayAsk(number); })) {}

bool Rights::mayServe(uint32_t number) const {
  return administrator_ || contains(services_, number);
}

bool Rights::mayCall(uint32_t number) const {
  return administrator_ || number == lm::service::resolver || number == lm::service::identity ||
         number == lm::service::history;
}

}  // namespace lumen
