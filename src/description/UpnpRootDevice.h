#pragma once

#include "description/UpnpDevice.h"

/// The device at the top of the tree, which is found as "upnp:rootdevice" as well.
class UpnpRootDevice : public UpnpDevice {
 public:
  /// A default record, no embedded devices, no services.
  UpnpRootDevice() : UpnpDevice(UpnpDeviceDescr()) {}

  /// The root element of the description document.
  [[nodiscard]] XMLNode getDescription() const override;
  void getSearchTargets(SearchTargets& targets) const override;
};
