#pragma once

#include <string>
#include <string_view>

/// What a request's start line asks for.
struct RequestLine {
  std::string method;  ///< up to the first blank
  std::string url;     ///< from there to the first " HTTP/", or to the end when there is none
};

[[nodiscard]] RequestLine parseRequestLine(std::string_view startLine);
