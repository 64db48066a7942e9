#pragma once

#include <string>
#include <vector>

#include "platform/message.h"

namespace lumen {

/// The fields of a message in their order, one word each: "id=1 name=wan0 disabled=0". The name of
/// a field stands for its whole key, type included; a key without a name is written as a number.
[[nodiscard]] std::string text(const lm::message& m);

/// The records of a paged answer, a line each.
[[nodiscard]] std::vector<std::string> recordTexts(const lm::message& answer);

}  // namespace lumen
