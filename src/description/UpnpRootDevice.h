#pragma once

#include "description/UpnpDevice.h"

/// The root of the device tree, which also has the search target "upnp:rootdevice".
class UpnpRootDevice : public UpnpDevice {
 public:
  /// With default fields, no embedded devices and no services.
  UpnpRootDevice() : UpnpDevice(UpnpDeviceDescr()) {}

  /// The root element of the description document.
  [[nodiscard]] XMLNode getDescription() const override;
  void getSearchTargets(SearchTargets& targets) const override;
};
