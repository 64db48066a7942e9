#pragma once

#include <string>
#include <string_view>
#include <type_traits>

/// Writes `line` and a line end to standard output and flushes it. Each byte of a control character
/// or of invalid UTF-8 is written as '?', and an overlong line is cut. So an event is always one
/// line that any terminal can show, even when a LAN host chose its text.
void writeLog(std::string line);

/// Writes one line made of texts and integers (in decimal, a bool as 0 or 1):
/// `logLine("start int: ", name, " ", iptostr(address))`.
template <typename... Parts>
void logLine(const Parts&... parts) {
  const auto text = [](const auto& part) {
    using Part = std::decay_t<decltype(part)>;
    static_assert(!std::is_same_v<Part, char>, "a char is neither a text nor a number");
    if constexpr (std::is_integral_v<Part>) {
      return std::to_string(+part);
    } else {
      return std::string_view(part);
    }
  };
  std::string line;
  (line.append(text(parts)), ...);
  writeLog(std::move(line));
}
