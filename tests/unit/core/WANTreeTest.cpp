#include <gtest/gtest.h>

#include "core/WANTree.h"

namespace {

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

TEST(WANTree, KeepsItsNamesWithoutAnIdentity) {
  EXPECT_EQ(WANTree::udn("", 4294967295), "UUID-KESTRAVA-WAN-DEVICE--4294967295");
}

}  // namespace
