#pragma once

#include <cstdint>

/// Field keys of the undo history, path [66].
///
/// A program that changed something sends lm::cmd::addObject with `text` and `undo`. The other
/// commands are for administrators: list (paged, also as readAll), readObject and removeObject;
/// a service that may read has the first two. lm::cmd::changed notifies these of each new entry, as
/// the record of lm::key::records. To
/// undo a change, send `undo` to `path` with the command in it, then remove the entry. The program
/// that carries out the undo adds an entry for it in turn.
namespace lm::history::key {

inline constexpr uint32_t text = 0x20000001;  ///< string: what was changed, in words
inline constexpr uint32_t undo = 0x28000002;  ///< message: with its lm::key::command
inline constexpr uint32_t path = 0x88000003;  ///< u32 array: service and handler; in records
inline constexpr uint32_t time = 0x10000004;  ///< u64: seconds since 1970; in records

}  // namespace lm::history::key
