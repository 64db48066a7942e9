#pragma once

#include <cstddef>
#include <string_view>

#include "lumen/services/nat/Policy.h"
#include "lumen/values/Result.h"

namespace lumen {

/// The longest policy file, in bytes.
inline constexpr size_t maxPolicyFile = 16384;

/// The policy that `text` sets, a line "name = value" for each setting that is not the default and
/// comments after ";", no line longer than 190 bytes. Fails when anything in it is not understood,
/// with the words that follow the file's name: ": is too long", ":2: sections are not used".
[[nodiscard]] Result<Policy> parsePolicyFile(std::string_view text);

}  // namespace lumen
