#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "lumen/ctl/monitor/MessageNames.h"
#include "platform/message.h"

namespace lumenctl {

/// What a message about `subject` says, with the known names of its fields and values, and "u32
/// 0x08000077" for a key that is not. The fields of its transport are left out.
[[nodiscard]] nlohmann::ordered_json decoded(const lm::message& m, Subject subject);

/// A decoded value on one line that any terminal can show: `id=3 address=45.45.45.1
/// text="two words" path=[20, 5] undo={command=remove id=3}`.
[[nodiscard]] std::string onOneLine(const nlohmann::ordered_json& fields);

/// `text` printable, and in quotes unless it is one word.
[[nodiscard]] std::string quoted(const std::string& text);

}  // namespace lumenctl
