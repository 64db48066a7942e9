#include "lumen/ctl/router/InterfaceUse.h"

#include <algorithm>

namespace lumenctl {

GatewayObject useOf(const Interface& interface, const GatewayReport& gateway) {
  GatewayObject use;
  if (!gateway.answer || !gateway.answer->ok()) {
    use.role = interface.role;
    return use;
  }
  const std::vector<GatewayObject>& objects = (*gateway.answer)->objects;
  const auto it = std::find_if(objects.begin(), objects.end(), [&](const GatewayObject& object) {
    return object.interfaceId == interface.id;
  });
  return it == objects.end() ? use : *it;
}

}  // namespace lumenctl
