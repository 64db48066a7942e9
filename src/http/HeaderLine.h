#pragma once

#include <optional>
#include <string_view>

/// The two parts of a header line, as views into it.
struct HeaderLine {
  std::string_view name;   ///< before the first colon, unchanged
  std::string_view value;  ///< after the colon and its blanks; trailing blanks stay
};

/// None when `line` has no colon.
[[nodiscard]] std::optional<HeaderLine> parseHeaderLine(std::string_view line);
