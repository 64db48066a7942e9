#pragma once

#include <cstdint>
#include <string>

#include "platform/message.h"

namespace lumen {

/// Encodes the event that shows monitors the message `passing`, with the fields of
/// lm::monitor::key. They can always decode it: a message that would make it too long or nested too
/// deep is cut.
[[nodiscard]] std::string encodeMonitorEvent(uint32_t from, uint32_t to,
                                             const lm::message& passing);

}  // namespace lumen
