#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Keys.h"
#include "platform/message.h"

/// Field keys of the interface table, handler [20, 0], in addition to the shared ones.
///
/// Any permitted caller reads: lm::cmd::list and readAll (paged), readObject (which adds the
/// counters). lm::cmd::setObject with lm::key::disabled takes the link down or up: an administrator
/// may switch any link, a service only one kept as external. An administrator keeps a name with
/// lm::cmd::addObject, fields `name` and `role`; the reply carries its id (lm::key::objectId).
/// Keeping a kept name changes its role. lm::cmd::removeObject with the id ends the keeping.
///
/// A record: lm::key::objectId, hardwareType, flags, index, name, displayName, lm::key::disabled,
/// running; then, in the answer to readObject, the four counters; then, in an answer to an
/// administrator or a service that may read or open ports, the role if the interface is kept.
/// `roleChanged` notifies, without fields, that the role of an interface has changed that was
/// listed before.
namespace lm::interfaces {

namespace key {
inline constexpr uint32_t hardwareType = 0x08010001;  ///< u32: ARPHRD_*, 1 is Ethernet
inline constexpr uint32_t flags = 0x08010003;         ///< u32: 0, or flagGone
inline constexpr uint32_t index = 0x08010004;         ///< u32: kernel index; 0: link is away
inline constexpr uint32_t name = 0x20010005;          ///< string
inline constexpr uint32_t displayName = 0x20010006;   ///< string
inline constexpr uint32_t running = 0x0001000e;       ///< bool: IFF_UP and IFF_RUNNING
inline constexpr uint32_t role = 0x08010010;          ///< u32: roleExternal or roleInternal

/// u32, in a request to read an object: what to include in addition.
inline constexpr uint32_t readOptions = 0x08fe000c;

inline constexpr uint32_t bytesReceived = 0x100100fc;    ///< u64
inline constexpr uint32_t bytesSent = 0x100100fd;        ///< u64
inline constexpr uint32_t packetsReceived = 0x100100fe;  ///< u64
inline constexpr uint32_t packetsSent = 0x100100ff;      ///< u64
}  // namespace key

/// A value of key::readOptions: include the counters.
inline constexpr uint32_t withCounters = 256;

/// A value of key::hardwareType (ARPHRD_ETHER of linux/if_arp.h).
inline constexpr uint32_t ethernet = 1;

/// A value of key::flags: the interface has left the table.
inline constexpr uint32_t flagGone = 0x80;
/// For the gateway, any of these means that.
inline constexpr uint32_t goneFlags = 0x82;

/// A notification, beside lm::cmd::changed and lm::cmd::interfaceChanged.
inline constexpr uint32_t roleChanged = 0x10005;

inline constexpr uint32_t roleExternal = 1;
inline constexpr uint32_t roleInternal = 2;

/// The path of the table.
inline std::vector<uint32_t> path() { return {service::interfaces, handler::interfaces}; }

/// What an interface has carried since it was made.
struct Counters {
  uint64_t bytesReceived = 0;
  uint64_t bytesSent = 0;
  uint64_t packetsReceived = 0;
  uint64_t packetsSent = 0;

  bool operator==(const Counters&) const = default;
};

struct Record {
  uint32_t id = 0;
  uint32_t hardwareType = 0;
  uint32_t flags = 0;
  uint32_t index = 0;  ///< 0: the link is away
  std::string name;
  std::string displayName;
  bool disabled = false;
  bool running = false;
  std::optional<Counters> counters = std::nullopt;
  uint32_t role = 0;  ///< 0: not told, or the name is not kept

  bool operator==(const Record&) const = default;
};

/// Appends the fields of a record in their order.
inline void write(message& m, const Record& record) {
  m.insert_u32(lm::key::objectId, record.id);
  m.insert_u32(key::hardwareType, record.hardwareType);
  m.insert_u32(key::flags, record.flags);
  m.insert_u32(key::index, record.index);
  m.insert_string(key::name, record.name);
  m.insert_string(key::displayName, record.displayName);
  m.insert_bool(lm::key::disabled, record.disabled);
  m.insert_bool(key::running, record.running);
  if (record.counters) {
    m.insert_u64(key::bytesReceived, record.counters->bytesReceived);
    m.insert_u64(key::bytesSent, record.counters->bytesSent);
    m.insert_u64(key::packetsReceived, record.counters->packetsReceived);
    m.insert_u64(key::packetsSent, record.counters->packetsSent);
  }
  if (record.role != 0) m.insert_u32(key::role, record.role);
}

/// A field that is absent is 0, false or empty; without the first counter there are none.
inline Record readRecord(const message& m) {
  Record record{.id = m.get_u32(lm::key::objectId),
                .hardwareType = m.get_u32(key::hardwareType),
                .flags = m.get_u32(key::flags),
                .index = m.get_u32(key::index),
                .name = m.get_string(key::name),
                .displayName = m.get_string(key::displayName),
                .disabled = m.get_bool(lm::key::disabled),
                .running = m.get_bool(key::running),
                .role = m.get_u32(key::role)};
  // An absent field has the value that its reader gives it.
  if (m.get_u64(key::bytesReceived, 0) == m.get_u64(key::bytesReceived, 1)) {
    record.counters = Counters{.bytesReceived = m.get_u64(key::bytesReceived),
                               .bytesSent = m.get_u64(key::bytesSent),
                               .packetsReceived = m.get_u64(key::packetsReceived),
                               .packetsSent = m.get_u64(key::packetsSent)};
  }
  return record;
}

}  // namespace lm::interfaces
