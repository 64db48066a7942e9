#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "lumen/services/nat/Policy.h"

namespace lumen {

/// The longest policy file, in bytes.
inline constexpr size_t maxPolicyFile = 16384;

/// The policy that `text` sets, a line "name = value" for each setting that has not its default and
/// comments behind ";", no line longer than 190 bytes. None when anything in it is not understood;
/// `error` then says what, as it follows the file's name: ": is too long", ":2: sections are not
/// used".
[[nodiscard]] std::optional<Policy> parsePolicyFile(std::string_view text, std::string& error);

}  // namespace lumen
