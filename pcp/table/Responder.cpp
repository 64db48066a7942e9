#include "pcp/table/Responder.h"

#include <netinet/in.h>

#include <variant>

namespace pcp {

namespace {

// NAT-PMP knows no nonces.
constexpr Nonce noNonce = {};

natpmp::Result natPmpResult(ResultCode code) {
  switch (code) {
    case ResultCode::success:
      return natpmp::Result::success;
    case ResultCode::notAuthorized:
      return natpmp::Result::notAuthorized;
    case ResultCode::networkFailure:
      return natpmp::Result::networkFailure;
    default:
      return natpmp::Result::outOfResources;
  }
}

bool hasPorts(uint8_t protocol) { return protocol == IPPROTO_TCP || protocol == IPPROTO_UDP; }

/// What the options of a client ask for, in their order; none: more than the router can do.
std::optional<MappingTable::FilterWish> filterOf(const std::vector<Filter>& filters,
                                                 const IpAddress& client) {
  const bool ofIpv4 = client.ipv4().has_value();
  MappingTable::FilterWish wish;
  bool everywhere = false;
  for (const Filter& filter : filters) {
    if (filter.prefix == 0) {
      wish = {.forget = true};
      everywhere = false;
      continue;
    }
    // No host of the other version of IP reaches the client.
    if (filter.address.ipv4().has_value() != ofIpv4 || filter.port != 0) return std::nullopt;
    wish.networks.emplace_back(lumen::Ipv6Address(filter.address.bytes), filter.prefix);
    // Every address: no filter.
    everywhere = everywhere || (ofIpv4 && filter.prefix == mappedPrefix);
  }
  if (everywhere) wish = {.forget = true};
  return wish;
}

}  // namespace

/// What became of a PCP request.
struct Responder::Carried {
  ResultCode code = ResultCode::success;
  uint32_t lifetime = 0;
  MapData assigned{};

  [[nodiscard]] static Carried failed(ResultCode code) { return {code, errorLifetime(code)}; }
};

Responder::Answer Responder::answer(std::span<const uint8_t> datagram, const IpAddress& source) {
  const bool natPmp = !datagram.empty() && datagram[0] == natpmp::version && source.ipv4();
  if (!natPmp) return answerPcp(datagram, source);
  const auto request = natpmp::parseRequest(datagram);
  if (!request) return std::nullopt;
  if (const auto* address = std::get_if<natpmp::AddressRequest>(&*request)) {
    return write(answer(*address));
  }
  if (const auto* map = std::get_if<natpmp::MapRequest>(&*request)) {
    return write(answer(*map, source));
  }
  return natpmp::writeUnsupported(datagram, epoch_.seconds());
}

natpmp::AddressResponse Responder::answer(const natpmp::AddressRequest& /*request*/) const {
  const auto external = table_.external();
  return {.result = external ? natpmp::Result::success : natpmp::Result::networkFailure,
          .epoch = epoch_.seconds(),
          .address = external.value_or(lumen::Ipv4Address())};
}

natpmp::MapResponse Responder::answer(const natpmp::MapRequest& request, const IpAddress& source) {
  natpmp::MapResponse response = {.protocol = request.protocol,
                                  .epoch = epoch_.seconds(),
                                  .internalPort = request.internalPort};
  if (request.lifetime == 0) {
    if (request.internalPort == 0) {
      response.result = natPmpResult(table_.unmapAll(source, request.protocol, noNonce));
    } else {
      response.result =
          natPmpResult(table_.unmap(source, {request.protocol, request.internalPort}, noNonce));
    }
    return response;
  }
  if (request.internalPort == 0) {
    response.result = natpmp::Result::notAuthorized;
    return response;
  }
  const auto mapped = table_.map({.nonce = noNonce,
                                  .client = source,
                                  .target = {request.protocol, request.internalPort},
                                  .port = request.externalPort,
                                  .lifetime = request.lifetime,
                                  .noLonger = true});
  if (const auto* code = std::get_if<ResultCode>(&mapped)) {
    response.result = natPmpResult(*code);
    return response;
  }
  const auto& assigned = std::get<MappingTable::Assigned>(mapped);
  response.externalPort = assigned.external.port;
  response.lifetime = assigned.lifetime;
  return response;
}

Responder::Answer Responder::answerPcp(std::span<const uint8_t> datagram, const IpAddress& source) {
  const auto parsed = parseRequest(datagram);
  if (!parsed) return std::nullopt;
  const auto* request = std::get_if<Request>(&*parsed);
  const Carried carried = request != nullptr ? carryOut(*request, source)
                                             : Carried::failed(std::get<ResultCode>(*parsed));
  if (carried.code != ResultCode::success) {
    return writeError(datagram, carried.code, carried.lifetime, epoch_.seconds());
  }
  return writeSuccess(*request, carried.assigned, carried.lifetime, epoch_.seconds());
}

Responder::Carried Responder::carryOut(const Request& request, const IpAddress& source) {
  if (request.client != source) return Carried::failed(ResultCode::addressMismatch);
  if (!request.map) return {};
  if (!request.thirdParty) return map(request, source);
  if (!agents_.contains(source)) return Carried::failed(ResultCode::unsupportedOption);
  const IpAddress& client = *request.thirdParty;
  // RFC 6887 section 13.1: it is for others.
  if (client == source || client.ipv4().has_value() != source.ipv4().has_value()) {
    return Carried::failed(ResultCode::malformedRequest);
  }
  return map(request, client);
}

Responder::Carried Responder::map(const Request& request, const IpAddress& client) {
  const MapData& wished = *request.map;
  if (!hasPorts(wished.protocol) || wished.internalPort == 0) {
    // A mapping that cannot be has ended.
    if (request.lifetime == 0) return {.assigned = wished};
    return Carried::failed(ResultCode::unsupportedProtocol);
  }
  const MappingTable::Target target = {wished.protocol, wished.internalPort};
  const auto failed = [&](ResultCode code) {
    Carried carried = Carried::failed(code);
    // A client that does not know the nonce waits for the end of the mapping (section 11.3).
    if (code == ResultCode::notAuthorized) {
      carried.lifetime = table_.left(client, target).value_or(carried.lifetime);
    }
    return carried;
  };
  // A port for some networks alone is another one.
  const auto open = request.filters.empty() ? table_.openByOthers(client, target) : std::nullopt;
  if (open) return mapStatic(request, *open);
  if (request.lifetime == 0) {
    const ResultCode code = table_.unmap(client, target, wished.nonce);
    if (code != ResultCode::success) return failed(code);
    return {.assigned = wished};
  }
  const auto filter = filterOf(request.filters, client);
  if (!filter) return Carried::failed(ResultCode::excessiveRemotePeers);
  const auto external = table_.externalOf(client);
  if (request.preferFailure && external && !wished.externalAddress.isUnspecified() &&
      wished.externalAddress != *external) {
    return Carried::failed(ResultCode::cannotProvideExternal);
  }
  const auto mapped = table_.map({.nonce = wished.nonce,
                                  .client = client,
                                  .target = target,
                                  .port = wished.externalPort,
                                  .exact = request.preferFailure,
                                  .filter = *filter,
                                  .lifetime = request.lifetime});
  if (const auto* code = std::get_if<ResultCode>(&mapped)) return failed(*code);
  const auto& assigned = std::get<MappingTable::Assigned>(mapped);
  Carried carried = {.lifetime = assigned.lifetime, .assigned = wished};
  carried.assigned.externalPort = assigned.external.port;
  carried.assigned.externalAddress = assigned.external.address;
  return carried;
}

// RFC 6887 sections 11.3 and 15.1.
Responder::Carried Responder::mapStatic(const Request& request, const Endpoint& open) {
  if (request.lifetime == 0) return Carried::failed(ResultCode::notAuthorized);
  const MapData& wished = *request.map;
  const bool sameAddress =
      wished.externalAddress.isUnspecified() || wished.externalAddress == open.address;
  if (request.preferFailure && (wished.externalPort != open.port || !sameAddress)) {
    return Carried::failed(ResultCode::cannotProvideExternal);
  }
  // Not without end: what opened it may close it, and the client then needs a port of its own.
  Carried carried = {.lifetime = MappingTable::granted(request.lifetime), .assigned = wished};
  carried.assigned.externalPort = open.port;
  carried.assigned.externalAddress = open.address;
  return carried;
}

std::vector<uint8_t> Responder::natPmpAnnouncement() const {
  return write(answer(natpmp::AddressRequest()));
}

std::vector<uint8_t> Responder::pcpAnnouncement() const {
  return writeAnnouncement(epoch_.seconds());
}

}  // namespace pcp
