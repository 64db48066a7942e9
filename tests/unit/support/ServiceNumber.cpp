#include "platform/Looper.h"

// Tests stand in for the gateway daemon.
const uint32_t lm::serviceNumber = 40;
