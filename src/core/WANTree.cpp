#include "core/WANTree.h"

#include <utility>

#include "base/Text.h"

WANTree::WANTree(const std::string& identity, uint32_t interfaceId)
    : commonIfc("upnp-org", "WANCommonInterfaceConfig:1", "WANCommonIFC1",
                "wancommonifc-" + uinttostr(interfaceId)),
      ipConn("upnp-org", "WANIPConnection:1", "WANIPConn1", "wanipconn-" + uinttostr(interfaceId)) {
  wanDevice_.deviceType = "schemas-upnp-org:device:WANDevice:1";
  wanDevice_.friendlyName = "WAN Device";
  wanDevice_.UDN = udn(identity, interfaceId);
  connectionDevice_.deviceType = "schemas-upnp-org:device:WANConnectionDevice:1";
  connectionDevice_.friendlyName = "WAN Connection Device";
  connectionDevice_.UDN =
      "UUID-KESTRAVA-WAN-CONNECTION-DEVICE-" + identity + "-" + uinttostr(interfaceId);
}

UpnpDevice WANTree::device() const {
  UpnpDevice connection(connectionDevice_);
  connection.services.push_back(ipConn);
  UpnpDevice wan(wanDevice_);
  wan.services.push_back(commonIfc);
  wan.devices.push_back(std::move(connection));
  return wan;
}

std::string WANTree::udn(const std::string& identity, uint32_t interfaceId) {
  return "UUID-KESTRAVA-WAN-DEVICE-" + identity + "-" + uinttostr(interfaceId);
}
