#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <variant>
#include <vector>

#include "lumen/values/Ipv4.h"

/// The messages of NAT-PMP (RFC 6886). Numbers are in host byte order, times in seconds.
namespace pcp::natpmp {

/// The first byte of every message.
inline constexpr uint8_t version = 0;

/// RFC 6886 section 3.5.
enum class Result : uint16_t {
  success = 0,
  unsupportedVersion = 1,
  notAuthorized = 2,
  networkFailure = 3,  ///< the router has no external address
  outOfResources = 4,
  unsupportedOpcode = 5,
};

/// Asks for the external address (section 3.2).
struct AddressRequest {
  bool operator==(const AddressRequest&) const = default;
};

/// Maps a port, or with lifetime 0 ends mappings: that of the internal port, or with port 0 all of
/// the protocol (sections 3.3 and 3.4).
struct MapRequest {
  uint8_t protocol = 0;  ///< IPPROTO_UDP or IPPROTO_TCP
  uint16_t internalPort = 0;
  uint16_t externalPort = 0;  ///< a wish; 0: none
  uint32_t lifetime = 0;

  bool operator==(const MapRequest&) const = default;
};

/// A request with an opcode that does not exist.
struct UnknownRequest {
  uint8_t opcode = 0;

  bool operator==(const UnknownRequest&) const = default;
};

using Request = std::variant<AddressRequest, MapRequest, UnknownRequest>;

/// None: no answer is due, since `datagram` is no request or has another length than its opcode.
[[nodiscard]] std::optional<Request> parseRequest(std::span<const uint8_t> datagram);

[[nodiscard]] std::vector<uint8_t> write(const Request& request);

/// The answer to an AddressRequest; also the announcement. Without success the address is 0.0.0.0.
struct AddressResponse {
  Result result = Result::success;
  uint32_t epoch = 0;
  lumen::Ipv4Address address{};
};

/// The answer to a MapRequest. Of an ended mapping, and without success, the external port and the
/// lifetime are 0.
struct MapResponse {
  uint8_t protocol = 0;
  Result result = Result::success;
  uint32_t epoch = 0;
  uint16_t internalPort = 0;
  uint16_t externalPort = 0;
  uint32_t lifetime = 0;
};

[[nodiscard]] std::vector<uint8_t> write(const AddressResponse& response);
[[nodiscard]] std::vector<uint8_t> write(const MapResponse& response);

/// The answer to an UnknownRequest: all of it, with the result that says so and the epoch (section
/// 3.5). REQUIRES: parseRequest of `datagram` gives an UnknownRequest.
[[nodiscard]] std::vector<uint8_t> writeUnsupported(std::span<const uint8_t> datagram,
                                                    uint32_t epoch);

}  // namespace pcp::natpmp
