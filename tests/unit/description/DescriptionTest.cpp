#include <gtest/gtest.h>

#include "description/UpnpDevice.h"
#include "description/UpnpRootDevice.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

UpnpServiceDescr osInfo() { return {"microsoft-com", "OSInfo:1", "OSInfo1", "osinfo"}; }

UpnpDevice deviceNamed(const std::string& udn) {
  UpnpDeviceDescr descr;
  descr.deviceType = "schemas-upnp-org:device:WANDevice:1";
  descr.UDN = udn;
  return UpnpDevice(descr);
}

Entries searchTargetsOf(const UpnpDevice& device) {
  SearchTargets targets;
  device.getSearchTargets(targets);
  return {targets.begin(), targets.end()};
}

std::vector<std::string> childNames(const XMLNode& node) {
  std::vector<std::string> names;
  for (const XMLNode& child : node.subNodes) names.push_back(child.name);
  return names;
}

/// The first child of that name; a nameless node when there is none.
XMLNode child(const XMLNode& node, const std::string& name) {
  for (const XMLNode& candidate : node.subNodes) {
    if (candidate.name == name) return candidate;
  }
  return {};
}

}  // namespace

// Promise: A service is named after a domain, a type, an id and a stem:
// `urn:schemas-DOMAIN:service:TYPE`, `urn:DOMAIN:serviceId:ID`, `/STEM.xml`, `/upnp/control/STEM`
// and `/upnp/event/STEM`.
TEST(UpnpServiceDescr, IsDerivedFromFourTexts) {
  const UpnpServiceDescr service = osInfo();
  EXPECT_EQ(service.serviceType, "urn:schemas-microsoft-com:service:OSInfo:1");
  EXPECT_EQ(service.serviceId, "urn:microsoft-com:serviceId:OSInfo1");
  EXPECT_EQ(service.SCPDURL, "/osinfo.xml");
  EXPECT_EQ(service.controlURL, "/upnp/control/osinfo");
  EXPECT_EQ(service.eventSubURL, "/upnp/event/osinfo");
}

// Promise: A `service` element holds `serviceType`, `serviceId`, `SCPDURL`, `controlURL` and
// `eventSubURL`, in this order.
TEST(UpnpServiceDescr, WritesAServiceElement) {
  EXPECT_EQ(osInfo().getDescription().get(),
            "<service>\r\n"
            "  <serviceType>urn:schemas-microsoft-com:service:OSInfo:1</serviceType>\r\n"
            "  <serviceId>urn:microsoft-com:serviceId:OSInfo1</serviceId>\r\n"
            "  <SCPDURL>/osinfo.xml</SCPDURL>\r\n"
            "  <controlURL>/upnp/control/osinfo</controlURL>\r\n"
            "  <eventSubURL>/upnp/event/osinfo</eventSubURL>\r\n"
            "</service>\r\n");
}

// Promise: An `icon` element holds `mimetype`, `width`, `height`, `depth` and `url`, in this order,
// the numbers in decimal.
TEST(UpnpIcon, WritesAnIconElement) {
  EXPECT_EQ((UpnpIcon{"image/gif", 16, 32, 4294967295, "/logo16.gif"}).getDescription().get(),
            "<icon>\r\n"
            "  <mimetype>image/gif</mimetype>\r\n"
            "  <width>16</width>\r\n"
            "  <height>32</height>\r\n"
            "  <depth>4294967295</depth>\r\n"
            "  <url>/logo16.gif</url>\r\n"
            "</icon>\r\n");
}

// Promise: By default a device is made by `Kestrava`, `http://www.kestrava.example/`, and is a
// `Palinode`.
TEST(UpnpDeviceDescr, NamesItsManufacturer) {
  const UpnpDeviceDescr descr;
  EXPECT_EQ(descr.manufacturer, "Kestrava");
  EXPECT_EQ(descr.manufacturerURL, "http://www.kestrava.example/");
  EXPECT_EQ(descr.modelName, "Palinode");
  EXPECT_EQ(descr.deviceType + descr.friendlyName + descr.modelDescription + descr.modelNumber +
                descr.modelURL + descr.serialNumber + descr.UDN + descr.UPC + descr.presentationURL,
            "");
  EXPECT_TRUE(descr.icons.empty());
}

// Promise: `deviceType` is written after `urn:` and `UDN` after `uuid:`.
// Promise: Of the texts, `manufacturerURL`, `modelDescription`, `modelNumber`, `modelURL`,
// `serialNumber`, `UPC` and `presentationURL` are left out when they are empty.
// Promise: `friendlyName`, `manufacturer` and `modelName` are written even when they are empty.
// Promise: `iconList` and `deviceList` are left out when there is nothing in them.
// Promise: A device without services has an empty list of them: `<serviceList></serviceList>`.
TEST(UpnpDevice, LeavesOutOptionalElementsThatAreEmpty) {
  EXPECT_EQ(deviceNamed("1").getDescription().get(),
            "<device>\r\n"
            "  <deviceType>urn:schemas-upnp-org:device:WANDevice:1</deviceType>\r\n"
            "  <friendlyName></friendlyName>\r\n"
            "  <manufacturer>Kestrava</manufacturer>\r\n"
            "  <manufacturerURL>http://www.kestrava.example/</manufacturerURL>\r\n"
            "  <modelName>Palinode</modelName>\r\n"
            "  <UDN>uuid:1</UDN>\r\n"
            "  <serviceList></serviceList>\r\n"
            "</device>\r\n");
}

// Promise: A `device` element holds `deviceType`, `friendlyName`, `manufacturer`,
// `manufacturerURL`, `modelDescription`, `modelName`, `modelNumber`, `modelURL`, `serialNumber`,
// `UDN`, `UPC`, `iconList`, `serviceList`, `deviceList` and `presentationURL`, in this order.
// Promise: Icons, services and embedded devices stand in the order in which they were added.
TEST(UpnpDevice, WritesEveryElementInOrder) {
  UpnpDevice device = deviceNamed("1");
  device.descr.friendlyName = "name";
  device.descr.modelDescription = "description";
  device.descr.modelNumber = "2";
  device.descr.modelURL = "http://model/";
  device.descr.serialNumber = "3";
  device.descr.UPC = "4";
  device.descr.icons = {{"image/gif", 16, 16, 8, "/1"}, {"image/gif", 32, 32, 8, "/2"}};
  device.descr.presentationURL = "http://here/";
  device.services = {osInfo(), {"upnp-org", "X:1", "X1", "x"}};
  device.devices = {deviceNamed("5"), deviceNamed("6")};
  const XMLNode element = device.getDescription();
  EXPECT_EQ(childNames(element),
            (std::vector<std::string>{"deviceType", "friendlyName", "manufacturer",
                                      "manufacturerURL", "modelDescription", "modelName",
                                      "modelNumber", "modelURL", "serialNumber", "UDN", "UPC",
                                      "iconList", "serviceList", "deviceList", "presentationURL"}));
  EXPECT_EQ(child(element, "modelDescription").value, "description");
  EXPECT_EQ(child(element, "modelNumber").value, "2");
  EXPECT_EQ(child(element, "modelURL").value, "http://model/");
  EXPECT_EQ(child(element, "serialNumber").value, "3");
  EXPECT_EQ(child(element, "UPC").value, "4");
  EXPECT_EQ(child(element, "presentationURL").value, "http://here/");
  EXPECT_EQ(childNames(child(element, "iconList")), (std::vector<std::string>{"icon", "icon"}));
  EXPECT_EQ(child(element, "iconList").subNodes.back().subNodes.back().value, "/2");
  EXPECT_EQ(childNames(child(element, "serviceList")),
            (std::vector<std::string>{"service", "service"}));
  EXPECT_EQ(child(element, "serviceList").subNodes.back().get(),
            device.services.back().getDescription().get());
  EXPECT_EQ(childNames(child(element, "deviceList")),
            (std::vector<std::string>{"device", "device"}));
  EXPECT_EQ(child(child(element, "deviceList").subNodes.back(), "UDN").value, "uuid:6");
}

TEST(UpnpDevice, WritesAnEmptyModelNameAndNoEmptyManufacturerUrl) {
  UpnpDevice device = deviceNamed("1");
  device.descr.modelName.clear();
  device.descr.manufacturer.clear();
  device.descr.manufacturerURL.clear();
  EXPECT_EQ(childNames(device.getDescription()),
            (std::vector<std::string>{"deviceType", "friendlyName", "manufacturer", "modelName",
                                      "UDN", "serviceList"}));
}

// Promise: A device without a UDN is `uuid:`, in its description as well as in its unique service
// names.
TEST(UpnpDevice, WritesAnEmptyUdnAsThePrefixAlone) {
  const UpnpDevice device = deviceNamed("");
  EXPECT_EQ(child(device.getDescription(), "UDN").value, "uuid:");
  EXPECT_EQ(searchTargetsOf(device).back().first, "uuid:");
  EXPECT_EQ(searchTargetsOf(device).back().second, "uuid:");
}

// Promise: A device is found under `uuid:UDN`, under `urn:` and its device type, and under the type
// of each of its services.
// Promise: The unique service name of a device is `uuid:UDN`, and of a type `uuid:UDN::TYPE`.
TEST(UpnpDevice, IsFoundUnderItsNameItsTypeAndItsServices) {
  UpnpDevice device = deviceNamed("1");
  device.services = {osInfo()};
  EXPECT_EQ(searchTargetsOf(device),
            (Entries{{"urn:schemas-microsoft-com:service:OSInfo:1",
                      "uuid:1::urn:schemas-microsoft-com:service:OSInfo:1"},
                     {"urn:schemas-upnp-org:device:WANDevice:1",
                      "uuid:1::urn:schemas-upnp-org:device:WANDevice:1"},
                     {"uuid:1", "uuid:1"}}));
}

// Promise: An embedded device is found under its own UDN.
// Promise: Search targets are in the order of their bytes, and equal ones, one for each device, in
// the order of the tree.
TEST(UpnpDevice, KeepsEqualTargetsInTheOrderOfTheTree) {
  UpnpDevice parent = deviceNamed("9");
  UpnpDevice first = deviceNamed("2");
  first.services = {osInfo()};
  UpnpDevice second = deviceNamed("1");
  second.services = {osInfo()};
  parent.devices = {first, second};
  SearchTargets targets;
  parent.getSearchTargets(targets);
  const auto [begin, end] = targets.equal_range("urn:schemas-microsoft-com:service:OSInfo:1");
  EXPECT_EQ(Entries(begin, end), (Entries{{"urn:schemas-microsoft-com:service:OSInfo:1",
                                           "uuid:2::urn:schemas-microsoft-com:service:OSInfo:1"},
                                          {"urn:schemas-microsoft-com:service:OSInfo:1",
                                           "uuid:1::urn:schemas-microsoft-com:service:OSInfo:1"}}));
  EXPECT_EQ(targets.count("urn:schemas-upnp-org:device:WANDevice:1"), 3U);
}

TEST(UpnpDevice, AppendsToExistingTargets) {
  SearchTargets targets = {{"uuid:1", "earlier"}};
  deviceNamed("1").getSearchTargets(targets);
  EXPECT_EQ(Entries(targets.lower_bound("uuid:1"), targets.end()),
            (Entries{{"uuid:1", "earlier"}, {"uuid:1", "uuid:1"}}));
}

// Promise: The root device is found under `upnp:rootdevice` too, with the unique service name
// `uuid:UDN::upnp:rootdevice`: with one service it is found under four targets.
TEST(UpnpRootDevice, IsFoundAsTheRootToo) {
  UpnpRootDevice root;
  root.descr.deviceType = "schemas-upnp-org:device:InternetGatewayDevice:1";
  root.descr.UDN = "1";
  root.services = {osInfo()};
  EXPECT_EQ(searchTargetsOf(root),
            (Entries{{"upnp:rootdevice", "uuid:1::upnp:rootdevice"},
                     {"urn:schemas-microsoft-com:service:OSInfo:1",
                      "uuid:1::urn:schemas-microsoft-com:service:OSInfo:1"},
                     {"urn:schemas-upnp-org:device:InternetGatewayDevice:1",
                      "uuid:1::urn:schemas-upnp-org:device:InternetGatewayDevice:1"},
                     {"uuid:1", "uuid:1"}}));
}

// Promise [description-root]: The document's root is `<root
// xmlns="urn:schemas-upnp-org:device-1-0">` with `specVersion` 1.0 and the root device, which has
// its embedded devices inside.
TEST(UpnpRootDevice, WritesTheDocument) {
  UpnpRootDevice root;
  root.descr.deviceType = "schemas-upnp-org:device:InternetGatewayDevice:1";
  root.descr.friendlyName = "Kestrava Router";
  root.descr.UDN = "1";
  root.devices = {deviceNamed("2")};
  const UpnpRootDevice& device = root;
  EXPECT_EQ(device.getDescription().getXML(),
            "<?xml version=\"1.0\"?>\r\n"
            "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">\r\n"
            "  <specVersion>\r\n"
            "    <major>1</major>\r\n"
            "    <minor>0</minor>\r\n"
            "  </specVersion>\r\n"
            "  <device>\r\n"
            "    <deviceType>urn:schemas-upnp-org:device:InternetGatewayDevice:1</deviceType>\r\n"
            "    <friendlyName>Kestrava Router</friendlyName>\r\n"
            "    <manufacturer>Kestrava</manufacturer>\r\n"
            "    <manufacturerURL>http://www.kestrava.example/</manufacturerURL>\r\n"
            "    <modelName>Palinode</modelName>\r\n"
            "    <UDN>uuid:1</UDN>\r\n"
            "    <serviceList></serviceList>\r\n"
            "    <deviceList>\r\n"
            "      <device>\r\n"
            "        <deviceType>urn:schemas-upnp-org:device:WANDevice:1</deviceType>\r\n"
            "        <friendlyName></friendlyName>\r\n"
            "        <manufacturer>Kestrava</manufacturer>\r\n"
            "        <manufacturerURL>http://www.kestrava.example/</manufacturerURL>\r\n"
            "        <modelName>Palinode</modelName>\r\n"
            "        <UDN>uuid:2</UDN>\r\n"
            "        <serviceList></serviceList>\r\n"
            "      </device>\r\n"
            "    </deviceList>\r\n"
            "  </device>\r\n"
            "</root>\r\n");
}
