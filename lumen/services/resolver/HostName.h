#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lumen {

/// `text` in lower case if it is a host name (RFC 1123, section 2.1, and "_", which hosts use
/// anyway): labels of 1 to 63 letters, digits, "-" and "_", which neither start nor end with "-";
/// 253 bytes in all; a trailing dot is allowed. None otherwise, and when the last label is a
/// number, since that would be an address.
[[nodiscard]] std::optional<std::string> toHostName(std::string_view text);

}  // namespace lumen
