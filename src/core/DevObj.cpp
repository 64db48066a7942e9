#include "core/DevObj.h"

#include "platform/Keys.h"

namespace {
constexpr uint32_t interfaceKey = 0x08000001;
constexpr uint32_t typeKey = 0x08000002;
}  // namespace

void DevObj::getConfig(lm::message& config) const {
  config.insert_bool(lm::key::disabled, disabled);
  config.insert_u32(interfaceKey, interface);
  config.insert_u32(typeKey, type);
}

void DevObj::setConfig(const lm::message& config) {
  disabled = config.get_bool(lm::key::disabled, disabled);
  type = config.get_u32(typeKey, type);
  interface = config.get_u32(interfaceKey, interface);
}
