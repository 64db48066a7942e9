#include "lumen/services/broker/Rights.h"

#include <algorithm>

#include "platform/Keys.h"
#include "platform/wire/Pinholes.h"

namespace lumen {

namespace {

template <typename Range, typename Value>
bool contains(const Range& range, const Value& value) {
  return std::find(range.begin(), range.end(), value) != range.end();
}

bool isRead(uint32_t command) {
  return command == lm::cmd::list || command == lm::cmd::readObject ||
         command == lm::cmd::readAll || command == lm::cmd::get;
}

}  // namespace

Rights::Rights(const Peer& peer, const Services& services, std::optional<gid_t> administrators)
    : administrator_(peer.user == 0 || (administrators && contains(peer.groups, *administrators))),
      services_(services.servicesOf(peer.user)),
      mayAsk_(administrator_ ||
              std::any_of(services_.begin(), services_.end(),
                          [&](uint32_t number) { return services.mayAsk(number); })),
      mayRead_(administrator_ ||
               std::any_of(services_.begin(), services_.end(),
                           [&](uint32_t number) { return services.mayRead(number); })),
      opensPorts_(std::any_of(services_.begin(), services_.end(), [&](uint32_t number) {
        return services.portsOf(number).has_value();
      })) {}

bool Rights::mayServe(uint32_t number) const {
  return administrator_ || contains(services_, number);
}

bool Rights::mayRead(Path path) const {
  if (!mayRead_) return false;
  if (administrator_) return true;
  switch (path.service) {
    case lm::service::broker:
    case lm::service::gateway:
    case lm::service::history:
      return path.handler == 0;
    case lm::service::interfaces:
      return path.handler == lm::handler::interfaces || path.handler == lm::handler::addresses ||
             path.handler == lm::handler::natRules || path.handler == lm::handler::portLog ||
             path.handler == lm::handler::pinholes;
    default:
      return false;
  }
}

bool Rights::mayRead(Path path, uint32_t command) const { return isRead(command) && mayRead(path); }

bool Rights::mayHearOfItsOwn(Path path) const {
  return opensPorts_ && path.service == lm::service::interfaces &&
         (path.handler == lm::handler::natRules || path.handler == lm::handler::pinholes);
}

bool Rights::mayCall(uint32_t number) const {
  return administrator_ || number == lm::service::resolver || number == lm::service::identity ||
         number == lm::service::history;
}

}  // namespace lumen
