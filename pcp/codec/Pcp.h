#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <variant>
#include <vector>

#include "pcp/codec/IpAddress.h"

/// The messages of PCP version 2 (RFC 6887). Numbers are in host byte order, times in seconds.
namespace pcp {

/// The first byte of every message.
inline constexpr uint8_t version = 2;
/// The longest message in bytes (RFC 6887 section 7).
inline constexpr size_t longestMessage = 1100;

/// RFC 6887 section 7.4.
enum class ResultCode : uint8_t {
  success = 0,
  unsupportedVersion = 1,
  notAuthorized = 2,
  malformedRequest = 3,
  unsupportedOpcode = 4,
  unsupportedOption = 5,
  malformedOption = 6,
  networkFailure = 7,
  noResources = 8,
  unsupportedProtocol = 9,
  userExceededQuota = 10,
  cannotProvideExternal = 11,
  addressMismatch = 12,
  excessiveRemotePeers = 13,
};

/// How long the client should not repeat a request that failed in this way: half a minute where
/// time alone can help, else half an hour (RFC 6887 section 7.4). 0 for success.
[[nodiscard]] uint32_t errorLifetime(ResultCode code);

/// Chosen by the client; only a request with the nonce of a mapping changes it.
using Nonce = std::array<uint8_t, 12>;

/// What a MAP request and its answer hold (section 11.1).
struct MapData {
  Nonce nonce = {};
  uint8_t protocol = 0;         ///< as in IP headers; 0: all
  uint16_t internalPort = 0;    ///< 0: all
  uint16_t externalPort = 0;    ///< in a request a wish; 0: none
  IpAddress externalAddress{};  ///< the same

  bool operator==(const MapData&) const = default;
};

/// Only this network may use the mapping (section 13.3).
struct Filter {
  uint8_t prefix = 0;  ///< 0: forget all filters that came before; of a mapped address 96 to 128
  uint16_t port = 0;   ///< 0: all
  IpAddress address{};

  bool operator==(const Filter&) const = default;
};

struct Request {
  uint32_t lifetime = 0;
  IpAddress client{};
  std::optional<MapData> map{};  ///< none: ANNOUNCE
  std::optional<IpAddress> thirdParty{};
  bool preferFailure = false;
  std::vector<Filter> filters{};

  bool operator==(const Request&) const = default;
};

/// The request in `datagram`, or the error that answers it; none: no answer is due, since it is too
/// short or a response. Options that a server may ignore are left out.
[[nodiscard]] std::optional<std::variant<Request, ResultCode>> parseRequest(
    std::span<const uint8_t> datagram);

[[nodiscard]] std::vector<uint8_t> write(const Request& request);

/// The answer to `request`, with the options that it had. `assigned` is what a MAP request got, and
/// ignored for ANNOUNCE.
[[nodiscard]] std::vector<uint8_t> writeSuccess(const Request& request, const MapData& assigned,
                                                uint32_t lifetime, uint32_t epoch);

/// The unsolicited answer that announces a new epoch (section 14.1).
[[nodiscard]] std::vector<uint8_t> writeAnnouncement(uint32_t epoch);

/// The answer to a request that failed: a copy of it, cut or filled up to the lengths that a
/// message can have. REQUIRES: parseRequest of `datagram` is not none.
[[nodiscard]] std::vector<uint8_t> writeError(std::span<const uint8_t> datagram, ResultCode code,
                                              uint32_t lifetime, uint32_t epoch);

}  // namespace pcp
