#include "core/WANTree.h"

#include <utility>

#include "base/Text.h"

WANTree::WANTree(const std::string& identity, uint32_t interfaceId)
    : commonIfc("upnp-org", "WANCommonInterfaceConfig:1", "WANCommonIFC1",
                "wancommonifc-" + uinttostr(interfaceId)),
      ipConn("upnp-org", "WANIPConnection:1", "WANIPConn1", "wanipconn-" + uinttostr(interfaceId)) {
  wanDevice.deviceType = "schemas-upnp-org:device:WANDevice:1";
  wanDevice.friendlyName = "WAN Device";
  wanDevice.UDN = udn(identity, interfaceId);
  connectionDevice.deviceType = "schemas-upnp-org:device:WANConnectionDevice:1";
  connectionDevice.friendlyName = "WAN Connection Device";
  connectionDevice.UDN =
      "UUID-KESTRAVA-WAN-CONNECTION-DEVICE-" + identity + "-" + uinttostr(interfaceId);
}

UpnpDevice WANTree::device() const {
  UpnpDevice connection(connectionDevice);
  connection.services.push_back(ipConn);
  UpnpDevice wan(wanDevice);
  wan.services.push_back(commonIfc);
  wan.devices.push_back(std::move(connection));
  return wan;
}

std::string WANTree::udn(const std::string& identity, uint32_t interfaceId) {
  return "UUID-KESTRAVA-WAN-DEVICE-" + identity + "-" + uinttostr(interfaceId);
}
