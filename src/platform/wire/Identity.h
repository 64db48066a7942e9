#pragma once

#include <cstdint>

/// Fields of the system identity, path [65], which lm::cmd::get reads.
namespace lm::identity::key {

inline constexpr uint32_t text = 0x20000001;  ///< string: the same for the life of an installation

}  // namespace lm::identity::key
