#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/message.h"

namespace lumen {

/// Says which field of `request` is none of `known`; empty when there is none. Transport fields are
/// left out. A field that is not understood may be a condition: a rule without it would open more
/// than was asked for.
[[nodiscard]] std::string unknownField(const lm::message& request, std::span<const uint32_t> known);

}  // namespace lumen
