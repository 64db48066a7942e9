#pragma once

#include <cstdint>
#include <string>

#include "platform/Object.h"

/// The role of an interface in the gateway.
namespace interface_type {
inline constexpr uint32_t none = 0;      ///< not configured
inline constexpr uint32_t external = 1;  ///< the WAN side
inline constexpr uint32_t internal = 2;  ///< a LAN side
}  // namespace interface_type

/// One configured interface of the gateway.
class DevObj : public lm::Object {
 public:
  [[nodiscard]] std::string getName() const override { return "upnp interface"; }
  void getConfig(lm::message& config) const override;
  void setConfig(const lm::message& config) override;

  bool disabled = false;   ///< configured but inactive
  uint32_t interface = 0;  ///< id in the platform's interface table
  uint32_t type = 0;       ///< one of interface_type; any other value starts nothing
};
