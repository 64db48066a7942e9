#include "platform/System.h"

#include "lumen/runtime/EventLoop.h"

namespace lm {

uint32_t getUptime() {
  const EventLoop* loop = currentLoop();
  const uint64_t now = loop ? loop->clock().now() : currentClock().now();
  return static_cast<uint32_t>(now / 1000);
}

}  // namespace lm

std::string getOSVersion() { return PALINODE_VERSION " "; }
