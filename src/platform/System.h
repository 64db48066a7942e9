#pragma once

#include <cstdint>
#include <string>

namespace lm {

/// Whole seconds since the router was started, times of suspension included. Cut to 32 bits.
[[nodiscard]] uint32_t getUptime();

}  // namespace lm

/// The text that follows "Palinode/" in the SERVER field: the version of this software and one
/// blank.
[[nodiscard]] std::string getOSVersion();
