#pragma once

#include <cstdint>
#include <string>

#include "description/UpnpDevice.h"
#include "description/UpnpServiceDescr.h"

/// The descriptions of what hangs under the root device for one external interface: a WANDevice
/// with its link service, and in it a WANConnectionDevice with its connection service.
class WANTree {
 public:
  /// `identity` is the router's, `interfaceId` tells the trees of one router apart.
  WANTree(const std::string& identity, uint32_t interfaceId);

  /// The whole sub-tree.
  [[nodiscard]] UpnpDevice device() const;

  /// The UDN of the sub-tree's device.
  [[nodiscard]] static std::string udn(const std::string& identity, uint32_t interfaceId);

  const UpnpServiceDescr commonIfc;
  const UpnpServiceDescr ipConn;

 private:
  UpnpDeviceDescr wanDevice_;
  UpnpDeviceDescr connectionDevice_;
};
