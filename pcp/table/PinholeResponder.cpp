#include "pcp/table/PinholeResponder.h"

#include <netinet/in.h>

#include <algorithm>
#include <variant>

namespace pcp {

namespace {

bool hasPorts(uint8_t protocol) { return protocol == IPPROTO_TCP || protocol == IPPROTO_UDP; }

/// PCP's own ports are never mapped (RFC 6887 section 11.3).
bool isOwnPort(const MapData& map) {
  return map.protocol == IPPROTO_UDP && (map.internalPort == 5350 || map.internalPort == 5351);
}

}  // namespace

/// What became of a request.
struct PinholeResponder::Carried {
  ResultCode code = ResultCode::success;
  uint32_t lifetime = 0;
  MapData assigned{};

  [[nodiscard]] static Carried failed(ResultCode code) { return {code, errorLifetime(code)}; }
};

std::optional<std::vector<uint8_t>> PinholeResponder::answer(std::span<const uint8_t> datagram,
                                                             const lumen::Ipv6Address& source) {
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

std::vector<uint8_t> PinholeResponder::announcement() const {
  return writeAnnouncement(epoch_.seconds());
}

PinholeResponder::Carried PinholeResponder::carryOut(const Request& request,
                                                     const lumen::Ipv6Address& source) {
  if (request.client.bytes != source.bytes()) return Carried::failed(ResultCode::addressMismatch);
  if (!request.map) return {};
  // No pinhole is for one remote host alone.
  if (!request.filters.empty()) return Carried::failed(ResultCode::unsupportedOption);
  if (!request.thirdParty) return map(request, source);
  if (agents_.empty()) return Carried::failed(ResultCode::unsupportedOption);
  if (!agents_.contains(source)) return Carried::failed(ResultCode::notAuthorized);
  const lumen::Ipv6Address host(request.thirdParty->bytes);
  // RFC 6887 section 13.1: it is for others.
  if (request.thirdParty->ipv4() || host == source) {
    return Carried::failed(ResultCode::malformedRequest);
  }
  return map(request, host);
}

PinholeResponder::Carried PinholeResponder::map(const Request& request,
                                                const lumen::Ipv6Address& host) {
  const MapData& wished = *request.map;
  // RFC 6887 sections 11.3 and 13.2.
  if (request.preferFailure && (request.lifetime == 0 || wished.externalPort == 0)) {
    return Carried::failed(ResultCode::malformedOption);
  }
  if (!hasPorts(wished.protocol) || wished.internalPort == 0) {
    return Carried::failed(ResultCode::unsupportedProtocol);
  }
  const PinholeTable::Target target = {wished.protocol, wished.internalPort};
  const auto failed = [&](ResultCode code) {
    Carried carried = Carried::failed(code);
    // Who does not know the nonce may try again when the mapping has ended.
    if (code == ResultCode::notAuthorized) {
      carried.lifetime =
          std::min(carried.lifetime, table_.left(host, target).value_or(carried.lifetime));
    }
    return carried;
  };
  if (request.lifetime == 0) {
    const ResultCode code = table_.unmap(host, target, wished.nonce);
    if (code != ResultCode::success) return failed(code);
    return {.assigned = wished};
  }
  if (isOwnPort(wished)) return Carried::failed(ResultCode::notAuthorized);
  // A firewall that translates nothing gives no other address or port (RFC 6887 section 11.3).
  const bool otherWish =
      wished.externalPort != wished.internalPort ||
      (!wished.externalAddress.isUnspecified() && wished.externalAddress.bytes != host.bytes());
  if (request.preferFailure && otherWish) {
    return Carried::failed(ResultCode::cannotProvideExternal);
  }
  const auto mapped = table_.map({.nonce = wished.nonce,
                                  .host = host,
                                  .target = target,
                                  .exact = request.preferFailure,
                                  .lifetime = request.lifetime});
  if (const auto* code = std::get_if<ResultCode>(&mapped)) return failed(*code);
  Carried carried = {.lifetime = std::get<uint32_t>(mapped), .assigned = wished};
  carried.assigned.externalPort = wished.internalPort;
  carried.assigned.externalAddress.bytes = host.bytes();
  return carried;
}

}  // namespace pcp
