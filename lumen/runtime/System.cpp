#include "platform/System.h"

#include "lumen/runtime/EventLoop.h"

namespace lm {

uint32_t getUptime() { return static_cast<uint32_t>(currentClock().now() / 1000); }

}  // namespace lm

std::string getOSVersion() { return PALINODE_VERSION " "; }
