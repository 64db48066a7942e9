#pragma once

#include <string>

#include "lumen/values/Result.h"
#include "platform/Keys.h"
#include "platform/message.h"

namespace lm {

/// The error reply to a request that is not carried out; the administrator reads `why`.
[[nodiscard]] inline message refusal(const std::string& why) { return errorMsg(errorRefused, why); }
[[nodiscard]] inline message refusal(const lumen::Failure& failure) {
  return refusal(failure.text);
}

}  // namespace lm
