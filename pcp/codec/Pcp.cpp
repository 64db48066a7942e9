#include "pcp/codec/Pcp.h"

#include <algorithm>

#include "pcp/codec/Bytes.h"

namespace pcp {

namespace {

constexpr uint8_t opAnnounce = 0;
constexpr uint8_t opMap = 1;
constexpr uint8_t responseBit = 0x80;

constexpr uint8_t optionThirdParty = 1;
constexpr uint8_t optionPreferFailure = 2;
constexpr uint8_t optionFilter = 3;
// From here on a server may ignore what it does not know (RFC 6887 section 7.3).
constexpr uint8_t firstOptional = 128;

constexpr size_t headerLength = 24;
constexpr size_t thirdPartyLength = 16;
constexpr size_t filterLength = 20;

constexpr uint8_t longestPrefix = 128;

// RFC 6887 section 7.4.
constexpr uint32_t shortLifetime = 30;
constexpr uint32_t longLifetime = 30 * 60;

constexpr size_t paddedLength(size_t length) { return (length + 3) / 4 * 4; }

ResultCode parseFilter(ByteReader data, Filter& filter) {
  data.take(1);  // reserved
  filter.prefix = data.u8();
  filter.port = data.u16();
  filter.address.bytes = data.array<16>();
  const bool tooShort =
      filter.prefix != 0 && filter.prefix < mappedPrefix && filter.address.ipv4().has_value();
  if (filter.prefix > longestPrefix || tooShort) return ResultCode::malformedOption;
  return ResultCode::success;
}

ResultCode parseOption(uint8_t code, std::span<const uint8_t> data, Request& request) {
  if (code >= firstOptional) return ResultCode::success;
  // All that we know are options of MAP.
  if (!request.map) return ResultCode::unsupportedOption;
  if (code == optionThirdParty) {
    if (data.size() != thirdPartyLength || request.thirdParty) return ResultCode::malformedOption;
    request.thirdParty = IpAddress{ByteReader(data).array<thirdPartyLength>()};
    return ResultCode::success;
  }
  if (code == optionPreferFailure) {
    if (!data.empty() || request.preferFailure) return ResultCode::malformedOption;
    // Neither an end nor any port can be preferred (sections 11.3 and 13.2).
    if (request.lifetime == 0 || request.map->externalPort == 0) return ResultCode::malformedOption;
    request.preferFailure = true;
    return ResultCode::success;
  }
  if (code == optionFilter) {
    // An end has no filter (section 13.3).
    if (data.size() != filterLength || request.lifetime == 0) return ResultCode::malformedOption;
    return parseFilter(ByteReader(data), request.filters.emplace_back());
  }
  return ResultCode::unsupportedOption;
}

struct Option {
  uint8_t code = 0;
  std::span<const uint8_t> data;
};

Option takeOption(ByteReader& in) {
  Option option = {.code = in.u8(), .data = {}};
  in.take(1);  // reserved
  const size_t length = in.u16();
  option.data = in.take(length);
  in.take(paddedLength(length) - length);
  return option;
}

bool hasWholeOptions(ByteReader in) {
  while (in.left() > 0) takeOption(in);
  return in.complete();
}

ResultCode parseOptions(ByteReader& in, Request& request) {
  // The structure of all comes before what one of them says (RFC 6887 section 7.3).
  if (!hasWholeOptions(in)) return ResultCode::malformedOption;
  while (in.left() > 0) {
    const Option option = takeOption(in);
    const ResultCode result = parseOption(option.code, option.data, request);
    if (result != ResultCode::success) return result;
  }
  return ResultCode::success;
}

/// From the byte after the opcode on.
ResultCode parseBody(uint8_t opcode, ByteReader& in, size_t length, Request& request) {
  if (opcode != opAnnounce && opcode != opMap) return ResultCode::unsupportedOpcode;
  if (length > longestMessage || length % 4 != 0) return ResultCode::malformedRequest;
  in.take(2);  // reserved
  request.lifetime = in.u32();
  request.client.bytes = in.array<16>();
  if (opcode == opMap) {
    MapData& map = request.map.emplace();
    map.nonce = in.array<12>();
    map.protocol = in.u8();
    in.take(3);  // reserved
    map.internalPort = in.u16();
    map.externalPort = in.u16();
    map.externalAddress.bytes = in.array<16>();
    // RFC 6887 section 11.1: one port of all protocols does not exist.
    if (map.protocol == 0 && map.internalPort != 0) return ResultCode::malformedRequest;
  }
  if (!in.complete()) return ResultCode::malformedRequest;
  return parseOptions(in, request);
}

void write(ByteWriter& out, const MapData& map) {
  out.bytes(map.nonce).u8(map.protocol).zeros(3).u16(map.internalPort).u16(map.externalPort);
  out.bytes(map.externalAddress.bytes);
}

void writeOptions(ByteWriter& out, const Request& request) {
  if (request.thirdParty) {
    out.u8(optionThirdParty).zeros(1).u16(thirdPartyLength).bytes(request.thirdParty->bytes);
  }
  if (request.preferFailure) out.u8(optionPreferFailure).zeros(1).u16(0);
  for (const Filter& filter : request.filters) {
    out.u8(optionFilter).zeros(1).u16(filterLength);
    out.zeros(1).u8(filter.prefix).u16(filter.port).bytes(filter.address.bytes);
  }
}

/// The header of a response.
ByteWriter begun(uint8_t opcode, ResultCode code, uint32_t lifetime, uint32_t epoch) {
  ByteWriter out;
  out.u8(version).u8(opcode | responseBit).zeros(1).u8(static_cast<uint8_t>(code));
  out.u32(lifetime).u32(epoch);
  return out;
}

}  // namespace

uint32_t errorLifetime(ResultCode code) {
  switch (code) {
    case ResultCode::success:
      return 0;
    case ResultCode::networkFailure:
    case ResultCode::noResources:
    case ResultCode::userExceededQuota:
    case ResultCode::cannotProvideExternal:
      return shortLifetime;
    default:
      return longLifetime;
  }
}

std::optional<std::variant<Request, ResultCode>> parseRequest(std::span<const uint8_t> datagram) {
  ByteReader in(datagram);
  const uint8_t wantedVersion = in.u8();
  const uint8_t opcode = in.u8();
  if (!in.complete() || (opcode & responseBit) != 0) return std::nullopt;
  if (wantedVersion != version) return ResultCode::unsupportedVersion;
  if (datagram.size() < headerLength) return std::nullopt;
  Request request;
  const ResultCode result = parseBody(opcode, in, datagram.size(), request);
  if (result != ResultCode::success) return result;
  return request;
}

std::vector<uint8_t> write(const Request& request) {
  ByteWriter out;
  out.u8(version).u8(request.map ? opMap : opAnnounce).zeros(2).u32(request.lifetime);
  out.bytes(request.client.bytes);
  if (request.map) write(out, *request.map);
  writeOptions(out, request);
  return out.take();
}

std::vector<uint8_t> writeSuccess(const Request& request, const MapData& assigned,
                                  uint32_t lifetime, uint32_t epoch) {
  ByteWriter out = begun(request.map ? opMap : opAnnounce, ResultCode::success, lifetime, epoch);
  out.zeros(12);
  if (request.map) write(out, assigned);
  writeOptions(out, request);
  return out.take();
}

std::vector<uint8_t> writeAnnouncement(uint32_t epoch) {
  return writeSuccess(Request(), MapData(), 0, epoch);
}

std::vector<uint8_t> writeError(std::span<const uint8_t> datagram, ResultCode code,
                                uint32_t lifetime, uint32_t epoch) {
  std::vector<uint8_t> copy(
      datagram.begin(),
      datagram.begin() + static_cast<std::ptrdiff_t>(std::min(datagram.size(), longestMessage)));
  copy.resize(std::max(paddedLength(copy.size()), headerLength));
  const std::vector<uint8_t> header = begun(copy[1], code, lifetime, epoch).take();
  std::copy(header.begin(), header.end(), copy.begin());
  // The rest of the header is a part of the client's address, which a request that was not
  // understood gets back (RFC 6887 section 7.2).
  const bool understood =
      code != ResultCode::unsupportedVersion && code != ResultCode::unsupportedOpcode &&
      code != ResultCode::malformedRequest && code != ResultCode::malformedOption;
  if (understood) std::fill(copy.begin() + 12, copy.begin() + headerLength, uint8_t{0});
  return copy;
}

}  // namespace pcp
