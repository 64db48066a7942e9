#include "pcp/codec/NatPmp.h"

#include <netinet/in.h>

#include "pcp/codec/Bytes.h"

namespace pcp::natpmp {

namespace {

constexpr uint8_t opAddress = 0;
constexpr uint8_t opMapUdp = 1;
constexpr uint8_t opMapTcp = 2;
constexpr uint8_t responseBit = 0x80;

constexpr size_t shortest = 2;
constexpr size_t headerLength = 8;  // of a response
constexpr size_t mapLength = 12;

uint8_t opcodeOf(uint8_t protocol) { return protocol == IPPROTO_TCP ? opMapTcp : opMapUdp; }

/// What all responses begin with.
ByteWriter begun(uint8_t opcode, Result result, uint32_t epoch) {
  ByteWriter out;
  out.u8(version).u8(opcode | responseBit).u16(static_cast<uint16_t>(result)).u32(epoch);
  return out;
}

}  // namespace

std::optional<Request> parseRequest(std::span<const uint8_t> datagram) {
  ByteReader in(datagram);
  const uint8_t wantedVersion = in.u8();
  const uint8_t opcode = in.u8();
  if (!in.complete() || wantedVersion != version || (opcode & responseBit) != 0) {
    return std::nullopt;
  }
  if (opcode == opAddress) {
    if (datagram.size() != shortest) return std::nullopt;
    return AddressRequest();
  }
  if (opcode != opMapUdp && opcode != opMapTcp) return UnknownRequest{opcode};
  if (datagram.size() != mapLength) return std::nullopt;
  in.take(2);  // reserved
  MapRequest map;
  map.protocol = opcode == opMapTcp ? IPPROTO_TCP : IPPROTO_UDP;
  map.internalPort = in.u16();
  map.externalPort = in.u16();
  map.lifetime = in.u32();
  return map;
}

std::vector<uint8_t> write(const Request& request) {
  ByteWriter out;
  out.u8(version);
  if (const auto* map = std::get_if<MapRequest>(&request)) {
    out.u8(opcodeOf(map->protocol)).zeros(2).u16(map->internalPort).u16(map->externalPort);
    out.u32(map->lifetime);
  } else if (const auto* unknown = std::get_if<UnknownRequest>(&request)) {
    out.u8(unknown->opcode);
  } else {
    out.u8(opAddress);
  }
  return out.take();
}

std::vector<uint8_t> write(const AddressResponse& response) {
  return begun(opAddress, response.result, response.epoch).u32(response.address.number()).take();
}

std::vector<uint8_t> write(const MapResponse& response) {
  return begun(opcodeOf(response.protocol), response.result, response.epoch)
      .u16(response.internalPort)
      .u16(response.externalPort)
      .u32(response.lifetime)
      .take();
}

std::vector<uint8_t> writeUnsupported(std::span<const uint8_t> datagram, uint32_t epoch) {
  ByteWriter out = begun(datagram[1], Result::unsupportedOpcode, epoch);
  if (datagram.size() > headerLength) out.bytes(datagram.subspan(headerLength));
  return out.take();
}

}  // namespace pcp::natpmp
