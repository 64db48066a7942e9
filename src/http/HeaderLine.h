#pragma once

#include <optional>
#include <string_view>

/// One header line in two: views into the line.
struct HeaderLine {
  std::string_view name;   ///< before the first colon, as it is
  std::string_view value;  ///< behind it and the blanks that follow; trailing blanks stay
};

/// None when the line has no colon.
[[nodiscard]] std::optional<HeaderLine> parseHeaderLine(std::string_view line);
