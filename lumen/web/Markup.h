#pragma once

#include <string>
#include <string_view>

namespace lumen::web {

/// `text` as HTML shows it, in an element or in a quoted attribute: no character of it is markup.
/// Control characters and what is not valid UTF-8 become U+FFFD.
[[nodiscard]] std::string markup(std::string_view text);

/// `text` as a label's value in the Prometheus text format, without the quotation marks.
[[nodiscard]] std::string labelValue(std::string_view text);

}  // namespace lumen::web
