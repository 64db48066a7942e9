#include "http/MessageLines.h"

#include <algorithm>

RequestLine parseRequestLine(std::string_view startLine) {
  const size_t blank = startLine.find(' ');
  if (blank == std::string_view::npos) return {std::string(startLine), ""};
  const std::string_view upToVersion = startLine.substr(0, startLine.find(" HTTP/"));
  const std::string_view url =
      upToVersion.size() > blank ? upToVersion.substr(blank + 1) : std::string_view();
  return {std::string(startLine.substr(0, blank)), std::string(url)};
}

std::optional<HeaderLine> parseHeaderLine(std::string_view line) {
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  std::string_view value = line.substr(colon + 1);
  value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
  return HeaderLine{line.substr(0, colon), value};
}
