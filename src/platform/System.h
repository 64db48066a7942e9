#pragma once

#include <cstdint>
#include <string>

namespace lm {

/// The uptime of the router in whole seconds, including suspended time, truncated to 32 bits.
[[nodiscard]] uint32_t getUptime();

}  // namespace lm

/// The text after "Palinode/" in the SERVER field: the version of this software and one blank.
[[nodiscard]] std::string getOSVersion();
