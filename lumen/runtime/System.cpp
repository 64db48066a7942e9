#include "platform/System.h"

#include <chrono>

#include "lumen/runtime/EventLoop.h"

namespace lm {

uint32_t getUptime() {
  const auto uptime = currentClock().now().time_since_epoch();
  return static_cast<uint32_t>(std::chrono::floor<std::chrono::seconds>(uptime).count());
}

}  // namespace lm

std::string getOSVersion() { return PALINODE_VERSION " "; }
