#pragma once

#include <optional>
#include <string>
#include <string_view>

// The lines of an HTTP message, without their ends.

/// The method and the URL of a request's start line.
struct RequestLine {
  std::string method;  ///< up to the first blank
  std::string url;     ///< from there to the first " HTTP/" or the end of the line
};

[[nodiscard]] RequestLine parseRequestLine(std::string_view startLine);

/// The two parts of a header line, as views into it.
struct HeaderLine {
  std::string_view name;   ///< before the first colon, unchanged
  std::string_view value;  ///< after the colon and its blanks; trailing blanks stay
};

/// None when `line` has no colon.
[[nodiscard]] std::optional<HeaderLine> parseHeaderLine(std::string_view line);
