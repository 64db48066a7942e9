#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Keys.h"
#include "platform/message.h"

namespace lm::handler {
inline constexpr uint32_t pinholes = 7;
}  // namespace lm::handler

/// Field keys of the pinhole table, handler [20, 7], in addition to the shared ones. A pinhole lets
/// packets from the IPv6 Internet reach a port of a host on the LAN.
///
/// Commands: lm::cmd::addObject for a service whose file grants it ports, with address, protocol,
/// port and lease; the reply carries the id (lm::key::objectId). lm::cmd::setObject with the id and
/// a lease renews it, and with `remotes` replaces those; lm::cmd::removeObject with the id ends it:
/// for the owner and administrators. Administrators and services that may read have list (paged,
/// also as readAll), readObject and get.
///
/// A pinhole ends with the connection that added it, if not before. lm::cmd::changed notifies those
/// who may list of each pinhole that was opened, renewed or closed, as the record of
/// lm::key::records; one that has left the table says so with lm::key::removed. The owner is
/// notified of those that lumend ended, with `ended`.
namespace lm::pinholes {

namespace key {
// A pinhole, in the order of a record.
inline constexpr uint32_t address = 0x20000001;   ///< string: of the host, "2001:db8::10"
inline constexpr uint32_t protocol = 0x08000002;  ///< u32: 6 TCP, 17 UDP
inline constexpr uint32_t port = 0x08000003;      ///< u32: 1 to 65535
/// u32, not 0: how many seconds it lives from now; in a record what is left.
inline constexpr uint32_t lease = 0x08000004;
/// string: the networks from which packets pass, at most mostRemotes with spaces between them,
/// "2001:db8::/32 2001:db9::1/128", prefixes from 1; absent or, in a set request, empty: from
/// anywhere.
inline constexpr uint32_t remotes = 0x20000005;

// A record's additional fields, after the id.
inline constexpr uint32_t owner = 0x20000010;    ///< string: service name
inline constexpr uint32_t seconds = 0x10000011;  ///< u64: since it was added

/// u32, in the notification of a pinhole that lumend ended: a value of End.
inline constexpr uint32_t ended = 0x08000012;

/// u32, beside the error that refuses a change: a value of Refusal.
inline constexpr uint32_t refusal = 0x08000020;

/// string, in the answer to get: why no pinhole can be opened at all; empty: they can.
inline constexpr uint32_t problem = 0x20000030;
/// bool, in the same answer: pinholes may name remote networks, since the ruleset file has a set
/// for them.
inline constexpr uint32_t remotesPossible = 0x00000031;
}  // namespace key

/// Why a change was refused.
enum class Refusal : uint32_t {
  other = 1,
  conflict = 2,       ///< there is such a pinhole
  policy = 3,         ///< the policy forbids the port, or the host is no internal one
  full = 4,           ///< the host, the service or all together have as many as they may have
  rights = 5,         ///< the service's file does not grant it
  notForwarding = 6,  ///< the router does not forward IPv6
  notPrepared = 7,    ///< the router's files do not make the table of pinholes
};

/// Why lumend ended a pinhole.
enum class End : uint32_t { lease = 1, administrator = 2, addressGone = 3 };

/// The path of the table.
inline std::vector<uint32_t> path() { return {service::interfaces, handler::pinholes}; }

/// How many remote networks a pinhole can name.
inline constexpr size_t mostRemotes = 8;

/// What an add request asks for. Protocol and port have the width of their fields, so that a reader
/// sees a number that is too large.
struct Pinhole {
  std::string address;
  uint32_t protocol = 0;
  uint32_t port = 0;
  uint32_t lease = 0;     ///< in seconds
  std::string remotes{};  ///< empty: from anywhere

  bool operator==(const Pinhole&) const = default;
};

/// A pinhole as it is listed.
struct Record {
  Pinhole pinhole;
  uint32_t id = 0;
  std::string owner;
  uint64_t seconds = 0;
  std::optional<End> ended = std::nullopt;  ///< in a notification only

  bool operator==(const Record&) const = default;
};

/// Appends the fields of an add request in their order.
inline void write(message& m, const Pinhole& pinhole) {
  m.insert_string(key::address, pinhole.address);
  m.insert_u32(key::protocol, pinhole.protocol);
  m.insert_u32(key::port, pinhole.port);
  m.insert_u32(key::lease, pinhole.lease);
  if (!pinhole.remotes.empty()) m.insert_string(key::remotes, pinhole.remotes);
}

/// A field that is absent is 0 or empty.
inline Pinhole readPinhole(const message& m) {
  return {.address = m.get_string(key::address),
          .protocol = m.get_u32(key::protocol),
          .port = m.get_u32(key::port),
          .lease = m.get_u32(key::lease),
          .remotes = m.get_string(key::remotes)};
}

/// Appends the fields of the add request, then the others.
inline void write(message& m, const Record& record) {
  write(m, record.pinhole);
  m.insert_u32(lm::key::objectId, record.id);
  m.insert_string(key::owner, record.owner);
  m.insert_u64(key::seconds, record.seconds);
  if (record.ended) m.insert_u32(key::ended, static_cast<uint32_t>(*record.ended));
}

/// An end with a number that is not known counts as none.
inline Record readRecord(const message& m) {
  const uint32_t ended = m.get_u32(key::ended);
  const bool isEnd = ended >= static_cast<uint32_t>(End::lease) &&
                     ended <= static_cast<uint32_t>(End::addressGone);
  return {.pinhole = readPinhole(m),
          .id = m.get_u32(lm::key::objectId),
          .owner = m.get_string(key::owner),
          .seconds = m.get_u64(key::seconds),
          .ended = isEnd ? std::optional(static_cast<End>(ended)) : std::nullopt};
}

/// Of an error reply. A reason that is absent or not known is Refusal::other.
inline Refusal readRefusal(const message& m) {
  const uint32_t why = m.get_u32(key::refusal);
  const bool isReason = why >= static_cast<uint32_t>(Refusal::other) &&
                        why <= static_cast<uint32_t>(Refusal::notPrepared);
  return isReason ? static_cast<Refusal>(why) : Refusal::other;
}

}  // namespace lm::pinholes
