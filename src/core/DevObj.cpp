#include "core/DevObj.h"

#include "platform/Keys.h"
#include "platform/wire/Gateway.h"

void DevObj::getConfig(lm::message& config) const {
  config.insert_bool(lm::key::disabled, disabled);
  config.insert_u32(lm::gateway::key::interface, interface);
  config.insert_u32(lm::gateway::key::type, type);
}

void DevObj::setConfig(const lm::message& config) {
  disabled = config.get_bool(lm::key::disabled, disabled);
  type = config.get_u32(lm::gateway::key::type, type);
  interface = config.get_u32(lm::gateway::key::interface, interface);
}
