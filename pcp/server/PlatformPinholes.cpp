#include "pcp/server/PlatformPinholes.h"

#include "pcp/table/MappingTable.h"
#include "platform/Keys.h"
#include "platform/wire/Pinholes.h"

namespace pcp {

namespace {

// Milliseconds. lumend answers at once; hosts wait meanwhile.
constexpr uint32_t answerLimit = 2000;

static_assert(MappingTable::mostRemotes == lm::pinholes::mostRemotes);

lm::message newRequest() {
  lm::message request;
  request.insert_u32_array(lm::key::destination, lm::pinholes::path());
  return request;
}

Ports::Failure failureOf(lm::pinholes::Refusal why) {
  switch (why) {
    case lm::pinholes::Refusal::conflict:
      return Ports::Failure::conflict;
    // Only the administrator can change these.
    case lm::pinholes::Refusal::policy:
    case lm::pinholes::Refusal::rights:
    case lm::pinholes::Refusal::notPrepared:
      return Ports::Failure::forbidden;
    case lm::pinholes::Refusal::full:
      return Ports::Failure::full;
    case lm::pinholes::Refusal::notForwarding:
      return Ports::Failure::network;
    case lm::pinholes::Refusal::other:
      break;
  }
  return Ports::Failure::unavailable;
}

}  // namespace

std::variant<Ports::Open, Ports::Failure> PlatformPinholes::add(const Wish& wish) {
  lm::message request = newRequest();
  lm::pinholes::write(request, lm::pinholes::Pinhole{.address = wish.client.address.text(),
                                                     .protocol = wish.protocol,
                                                     .port = wish.client.port,
                                                     .lease = wish.lifetime,
                                                     .remotes = lumen::networksText(wish.remotes)});
  const lm::message reply = handler_.exchangeCmd(request, lm::cmd::addObject, answerLimit);
  if (lm::isError(reply)) return failureOf(lm::pinholes::readRefusal(reply));
  return Open{.id = reply.get_u32(lm::key::objectId), .port = wish.client.port};
}

std::optional<Ports::Failure> PlatformPinholes::renew(uint32_t id, uint32_t lifetime,
                                                      const std::optional<Networks>& remotes) {
  lm::message request = newRequest();
  request.insert_u32(lm::key::objectId, id);
  request.insert_u32(lm::pinholes::key::lease, lifetime);
  if (remotes) request.insert_string(lm::pinholes::key::remotes, lumen::networksText(*remotes));
  const lm::message reply = handler_.exchangeCmd(request, lm::cmd::setObject, answerLimit);
  if (!lm::isError(reply)) return std::nullopt;
  // The only reason without a number is that there is no such pinhole.
  const Failure failure = failureOf(lm::pinholes::readRefusal(reply));
  return failure == Failure::unavailable ? Failure::gone : failure;
}

void PlatformPinholes::remove(uint32_t id) {
  lm::message request = newRequest();
  request.insert_u32(lm::key::objectId, id);
  // One that is gone already is what was wanted.
  (void)handler_.exchangeCmd(request, lm::cmd::removeObject, answerLimit, lm::GivenUp::stands);
}

}  // namespace pcp
