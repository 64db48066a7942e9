#pragma once

#include <cstdint>
#include <vector>

#include "platform/Keys.h"
#include "platform/message.h"

/// Field keys of the address table, handler [20, 1], in addition to the shared ones.
///
/// Any permitted caller reads: lm::cmd::list and readAll (paged), readObject.
///
/// A record: lm::key::objectId, interface, address, lm::key::disabled (the interface is not
/// running). In the notification of a removed address, disabled is false and lm::key::removed
/// follows.
namespace lm::addresses {

namespace key {
inline constexpr uint32_t interface = 0x08000005;  ///< u32: id of the interface that holds it
inline constexpr uint32_t address = 0x08000001;    ///< be32

/// u32: replaces `interface` where that is absent.
inline constexpr uint32_t otherInterface = 0x0800000a;
}  // namespace key

/// The path of the table.
inline std::vector<uint32_t> path() { return {service::interfaces, handler::addresses}; }

struct Record {
  uint32_t id = 0;
  uint32_t interface = 0;
  uint32_t address = 0;  ///< network byte order
  bool disabled = false;
  bool removed = false;

  bool operator==(const Record&) const = default;
};

/// Appends the fields of a record in their order.
inline void write(message& m, const Record& record) {
  m.insert_u32(lm::key::objectId, record.id);
  m.insert_u32(key::interface, record.interface);
  m.insert_be32(key::address, record.address);
  m.insert_bool(lm::key::disabled, record.disabled);
  if (record.removed) m.insert_u32(lm::key::removed, 1);
}

/// A field that is absent is 0 or false.
inline Record readRecord(const message& m) {
  return {.id = m.get_u32(lm::key::objectId),
          .interface = m.get_u32(key::interface),
          .address = m.get_be32(key::address),
          .disabled = m.get_bool(lm::key::disabled),
          .removed = m.get_u32(lm::key::removed) != 0};
}

}  // namespace lm::addresses
