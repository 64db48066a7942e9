#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lumen/values/Ipv4.h"

/// Values as an administrator reads them.
namespace lumenctl {

/// `text` made safe for a terminal: whatever is not a printable character of valid UTF-8 comes out
/// as its bytes, \xNN, and a backslash doubled. That includes the characters that change the
/// writing direction. Names and error texts may come from anywhere.
[[nodiscard]] std::string printable(std::string_view text);

/// How many columns the UTF-8 text `text` takes, if no character is wider than one.
[[nodiscard]] size_t columns(std::string_view text);

/// As much of the beginning of `text` as takes at most `width` columns.
[[nodiscard]] std::string cut(std::string_view text, size_t width);

[[nodiscard]] std::vector<std::string> textsOf(const std::vector<lumen::Ipv4Address>& addresses);

/// A time in its two largest units: "45 s", "3 min 5 s", "2 d 4 h".
[[nodiscard]] std::string duration(std::chrono::seconds time);

/// A moment in this machine's time zone: "2024-02-29 23:59:58".
[[nodiscard]] std::string localTime(std::chrono::sys_seconds time);

/// The time of day of such a moment: "23:59:58.007".
[[nodiscard]] std::string localTimeOfDay(std::chrono::sys_time<std::chrono::milliseconds> time);

/// An amount of data in decimal units: "999 B", "1.2 MB".
[[nodiscard]] std::string amount(uint64_t bytes);

/// The texts with `separator` between them.
[[nodiscard]] std::string joined(const std::vector<std::string>& texts,
                                 std::string_view separator = ", ");

[[nodiscard]] std::string yesOrNo(bool value);
[[nodiscard]] std::string onOrOff(bool value);

}  // namespace lumenctl
