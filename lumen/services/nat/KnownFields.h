#pragma once

#include <cstdint>
#include <span>

#include "lumen/values/Result.h"
#include "platform/message.h"

namespace lumen {

/// Fails, naming the field, if `request` has a field that is not in `known`. Transport fields are
/// ignored. An unknown field may be a condition: a rule without it would open more than the
/// requester intended.
[[nodiscard]] Result<void> checkFields(const lm::message& request, std::span<const uint32_t> known);

}  // namespace lumen
