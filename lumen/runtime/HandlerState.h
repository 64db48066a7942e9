#pragma once

#include <cstdint>

#include "platform/Handler.h"
#include "platform/Keys.h"

namespace lm {

class Handler::State {
 public:
  uint32_t number = none;  ///< under which it was added to the looper
};

}  // namespace lm
