#pragma once

#include <string>
#include <string_view>

/// The method and the URL of a request's start line.
struct RequestLine {
  std::string method;  ///< up to the first blank
  std::string url;     ///< from there to the first " HTTP/" or the end of the line
};

[[nodiscard]] RequestLine parseRequestLine(std::string_view startLine);
