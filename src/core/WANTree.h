#pragma once

#include <cstdint>
#include <string>

#include "description/UpnpDevice.h"
#include "description/UpnpServiceDescr.h"

/// The descriptions of one external interface's sub-tree under the root device: a WANDevice with
/// its link service, and in it a WANConnectionDevice with its connection service.
class WANTree {
 public:
  /// `identity` is the router's, `interfaceId` distinguishes the trees of one router.
  WANTree(const std::string& identity, uint32_t interfaceId);

  /// The whole sub-tree.
  [[nodiscard]] UpnpDevice device() const;

  /// The UDN of the sub-tree's WANDevice.
  [[nodiscard]] static std::string udn(const std::string& identity, uint32_t interfaceId);

  const UpnpServiceDescr commonIfc;
  const UpnpServiceDescr ipConn;

 private:
  UpnpDeviceDescr wanDevice_;
  UpnpDeviceDescr connectionDevice_;
};
