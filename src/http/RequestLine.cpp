#include "http/RequestLine.h"

RequestLine parseRequestLine(std::string_view startLine) {
  const size_t blank = startLine.find(' ');
  if (blank == std::string_view::npos) return {std::string(startLine), ""};
  const std::string_view upToVersion = startLine.substr(0, startLine.find(" HTTP/"));
  const std::string_view url =
      upToVersion.size() > blank ? upToVersion.substr(blank + 1) : std::string_view();
  return {std::string(startLine.substr(0, blank)), std::string(url)};
}
