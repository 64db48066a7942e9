#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lumen {

/// `text` in small letters when a host can have that name (RFC 1123, section 2.1, and "_", which
/// hosts use all the same): labels of 1 to 63 letters, digits, "-" and "_", the first and the last
/// of which are no "-"; 253 bytes in all; a dot behind the last label is allowed. None otherwise,
/// and when the last label is a number, since that would be an address.
[[nodiscard]] std::optional<std::string> toHostName(std::string_view text);

}  // namespace lumen
