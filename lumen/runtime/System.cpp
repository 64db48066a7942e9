#include "platform/System.h"

#include "lumen/runtime/Clock.h"

namespace lm {

uint32_t getUptime() { return static_cast<uint32_t>(SystemClock().now() / 1000); }

}  // namespace lm

std::string getOSVersion() { return PALINODE_VERSION " "; }
