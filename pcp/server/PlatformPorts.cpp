#include "pcp/server/PlatformPorts.h"

#include "pcp/table/MappingTable.h"
#include "platform/Keys.h"
#include "platform/wire/NatRules.h"

namespace pcp {

namespace {

// Milliseconds. lumend answers at once; hosts wait meanwhile.
constexpr uint32_t answerLimit = 2000;

lm::message requestTo(const std::vector<uint32_t>& path) {
  lm::message request;
  request.insert_u32_array(lm::key::destination, path);
  return request;
}

/// Of an IPv4 address, as the platform carries it.
uint32_t bytesOf(const IpAddress& address) {
  return address.ipv4().value_or(lumen::Ipv4Address()).bytes();
}

static_assert(MappingTable::mostRemotes == lm::nat::mostRemotes);

std::vector<lm::nat::RemoteNetwork> wired(const Networks& networks) {
  std::vector<lm::nat::RemoteNetwork> remotes;
  for (const lumen::Ipv6Network& network : networks) {
    remotes.push_back(
        {.address = bytesOf({network.first().bytes()}), .prefix = network.prefix() - mappedPrefix});
  }
  return remotes;
}

Ports::Failure failureOf(lm::nat::Refusal why) {
  switch (why) {
    case lm::nat::Refusal::conflict:
    case lm::nat::Refusal::port:
      return Ports::Failure::conflict;
    case lm::nat::Refusal::policy:
    case lm::nat::Refusal::rights:
      return Ports::Failure::forbidden;
    case lm::nat::Refusal::full:
      return Ports::Failure::full;
    case lm::nat::Refusal::other:
      break;
  }
  return Ports::Failure::unavailable;
}

}  // namespace

std::variant<Ports::Open, Ports::Failure> PlatformPorts::add(const Wish& wish) {
  const lm::nat::Rule rule = {.address = bytesOf(wish.external.address),
                              .port = wish.external.port,
                              .protocol = wish.protocol,
                              .client = bytesOf(wish.client.address),
                              .clientPort = wish.client.port,
                              .lease = wish.lifetime,
                              .anyPort = !wish.exact,
                              .remotes = wired(wish.remotes)};
  lm::message request = requestTo(lm::nat::path());
  lm::nat::write(request, rule);
  const lm::message reply = handler_.exchangeCmd(request, lm::cmd::addObject, answerLimit);
  if (lm::isError(reply)) return failureOf(lm::nat::readDenial(reply).why);
  return Open{.id = reply.get_u32(lm::key::objectId),
              .port = static_cast<uint16_t>(reply.get_u32(lm::nat::key::portFirst, rule.port))};
}

std::optional<Ports::Failure> PlatformPorts::renew(uint32_t id, uint32_t lifetime,
                                                   const std::optional<Networks>& remotes) {
  lm::message request = requestTo(lm::nat::path());
  request.insert_u32(lm::key::objectId, id);
  request.insert_u32(lm::nat::key::lease, lifetime);
  if (remotes) lm::nat::writeRemotes(request, wired(*remotes));
  const lm::message reply = handler_.exchangeCmd(request, lm::cmd::setObject, answerLimit);
  if (!lm::isError(reply)) return std::nullopt;
  // The only reason without a number is that there is no such rule.
  const Failure failure = failureOf(lm::nat::readDenial(reply).why);
  return failure == Failure::unavailable ? Failure::gone : failure;
}

void PlatformPorts::remove(uint32_t id) {
  lm::message request = requestTo(lm::nat::path());
  request.insert_u32(lm::key::objectId, id);
  // A rule that is gone already is what was wanted.
  (void)handler_.exchangeCmd(request, lm::cmd::removeObject, answerLimit, lm::GivenUp::stands);
}

std::optional<uint16_t> PlatformPorts::openByOthers(uint8_t protocol, const IpAddress& external,
                                                    const Endpoint& client) {
  lm::message request = requestTo(lm::nat::path());
  lm::nat::write(request, lm::nat::Rule{.address = bytesOf(external),
                                        .protocol = protocol,
                                        .client = bytesOf(client.address),
                                        .clientPort = client.port});
  const lm::message reply = handler_.exchangeCmd(request, lm::nat::findOther, answerLimit);
  const uint32_t port = lm::isError(reply) ? 0 : reply.get_u32(lm::nat::key::portFirst);
  return port == 0 ? std::nullopt : std::optional(static_cast<uint16_t>(port));
}

}  // namespace pcp
