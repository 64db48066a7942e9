#pragma once

#include <cstdint>

/// Field keys of the undo history, path [66].
///
/// lm::cmd::addObject, for the programs that changed something, carries `text` and `undo`; the rest
/// is for administrators: list (paged, also as readAll), readObject and removeObject. To take a
/// change back, send `undo` to `path` with the command in it, and remove the entry when that is
/// done; the program that changed its mind adds an entry that takes that back in turn.
namespace lm::history::key {

inline constexpr uint32_t text = 0x20000001;  ///< string: what was changed, for people
inline constexpr uint32_t undo = 0x28000002;  ///< message: with its lm::key::command
inline constexpr uint32_t path = 0x88000003;  ///< u32 array: service and handler; in records
inline constexpr uint32_t time = 0x10000004;  ///< u64: seconds since 1970; in records

}  // namespace lm::history::key
