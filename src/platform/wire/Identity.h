#pragma once

#include <cstdint>

/// Fields of the system identity, path [65], read with lm::cmd::get.
namespace lm::identity::key {

inline constexpr uint32_t text = 0x20000001;  ///< string: the same for the life of an installation

}  // namespace lm::identity::key
