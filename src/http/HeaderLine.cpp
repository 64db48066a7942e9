#include "http/HeaderLine.h"

#include <algorithm>

std::optional<HeaderLine> parseHeaderLine(std::string_view line) {
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  std::string_view value = line.substr(colon + 1);
  value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
  return HeaderLine{line.substr(0, colon), value};
}
