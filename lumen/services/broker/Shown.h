#pragma once

#include <cstdint>
#include <string>

#include "platform/message.h"

namespace lumen {

/// The datagram that shows `passing` to those who monitor, with the fields of monitorkey. It is
/// always one that they can decode: what is too long or too deep in another message is cut.
[[nodiscard]] std::string shown(uint32_t from, uint32_t to, const lm::message& passing);

}  // namespace lumen
