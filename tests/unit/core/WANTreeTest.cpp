#include <gtest/gtest.h>

#include "core/WANTree.h"

namespace {

// Promise [wan-device]: Under the root device an external interface with the id ID is a `WAN
// Device` of type `urn:schemas-upnp-org:device:WANDevice:1` with the UDN
// `uuid:UUID-KESTRAVA-WAN-DEVICE-IDENTITY-ID`.
// Promise [common-service]: The WANDevice of an external interface has the service
// `urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1` as
// `urn:upnp-org:serviceId:WANCommonIFC1` with the stem `wancommonifc-ID`.
// Promise [connection-device]: In the WANDevice of an external interface there is a `WAN Connection
// Device` of type `urn:schemas-upnp-org:device:WANConnectionDevice:1` with the UDN
// `uuid:UUID-KESTRAVA-WAN-CONNECTION-DEVICE-IDENTITY-ID`.
// Promise [connection-service]: The connection device has the service
// `urn:schemas-upnp-org:service:WANIPConnection:1` as `urn:upnp-org:serviceId:WANIPConn1` with the
// stem `wanipconn-ID`.
TEST(WANTree, NamesEverythingAfterTheRouterAndTheInterface) {
  const WANTree tree("ID", 7);
  EXPECT_EQ(WANTree::udn("ID", 7), "UUID-KESTRAVA-WAN-DEVICE-ID-7");

  const UpnpDevice device = tree.device();
  EXPECT_EQ(device.descr.deviceType, "schemas-upnp-org:device:WANDevice:1");
  EXPECT_EQ(device.descr.friendlyName, "WAN Device");
  EXPECT_EQ(device.descr.UDN, "UUID-KESTRAVA-WAN-DEVICE-ID-7");
  ASSERT_EQ(device.services.size(), 1U);
  const UpnpServiceDescr& link = device.services.front();
  EXPECT_EQ(link.serviceType, "urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1");
  EXPECT_EQ(link.serviceId, "urn:upnp-org:serviceId:WANCommonIFC1");
  EXPECT_EQ(link.SCPDURL, "/wancommonifc-7.xml");
  EXPECT_EQ(link.controlURL, tree.commonIfc.controlURL);

  ASSERT_EQ(device.devices.size(), 1U);
  const UpnpDevice& connection = device.devices.front();
  EXPECT_EQ(connection.descr.deviceType, "schemas-upnp-org:device:WANConnectionDevice:1");
  EXPECT_EQ(connection.descr.friendlyName, "WAN Connection Device");
  EXPECT_EQ(connection.descr.UDN, "UUID-KESTRAVA-WAN-CONNECTION-DEVICE-ID-7");
  EXPECT_TRUE(connection.devices.empty());
  ASSERT_EQ(connection.services.size(), 1U);
  const UpnpServiceDescr& service = connection.services.front();
  EXPECT_EQ(service.serviceType, "urn:schemas-upnp-org:service:WANIPConnection:1");
  EXPECT_EQ(service.serviceId, "urn:upnp-org:serviceId:WANIPConn1");
  EXPECT_EQ(service.SCPDURL, "/wanipconn-7.xml");
  EXPECT_EQ(service.controlURL, "/upnp/control/wanipconn-7");
  EXPECT_EQ(service.eventSubURL, tree.ipConn.eventSubURL);
}

// Promise: Without an identity the names of the tree keep their dashes:
// `UUID-KESTRAVA-WAN-DEVICE--3`.
TEST(WANTree, KeepsItsNamesWithoutAnIdentity) {
  EXPECT_EQ(WANTree::udn("", 4294967295), "UUID-KESTRAVA-WAN-DEVICE--4294967295");
}

}  // namespace
