#pragma once

#include <cstdint>
#include <span>

#include "lumen/values/Result.h"
#include "platform/message.h"

namespace lumen {

/// Fails with the first field of `request` that is none of `known`. Transport fields are left out.
/// A field that is not understood may be a condition: a rule without it would open more than the
/// request means.
[[nodiscard]] Result<void> checkFields(const lm::message& request, std::span<const uint32_t> known);

}  // namespace lumen
