// The configured interfaces: adding, changing and removing one.

#include "core/Gateway.h"
#include "platform/Keys.h"

lm::message Gateway::objectAdded(DevObj& added) {
  for (const DevObj* object : objects()) {
    if (object->interface == added.interface) {
      return lm::errorMsg(lm::errorRefused, "Interface already added");
    }
  }
  applyObject(added);
  return {};
}

lm::message Gateway::objectSet(DevObj& before, DevObj& after) {
  if (before.interface != after.interface) {
    for (const DevObj* object : objects()) {
      if (object->id != after.id && object->interface == after.interface) {
        return lm::errorMsg(lm::errorRefused, "Interface already set");
      }
    }
  }
  withdrawObject(before);
  applyObject(after);
  return {};
}

lm::message Gateway::objectRemoved(DevObj& removed) {
  withdrawObject(removed);
  return {};
}

void Gateway::applyObject(const DevObj& object) {
  Device* device = knownDevice(object.interface);
  if (device == nullptr || object.disabled) return;
  device->type = object.type;
  if (enabled) start(*device);
}

void Gateway::withdrawObject(const DevObj& object) {
  Device* device = knownDevice(object.interface);
  if (device == nullptr) return;
  stop(*device);
  device->type = interface_type::none;
}
