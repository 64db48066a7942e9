#include "description/UpnpDevice.h"

namespace {

void addUnlessEmpty(XMLNode& node, const char* name, const std::string& value) {
  if (!value.empty()) node.addSubNode(name, value);
}

}  // namespace

XMLNode UpnpDevice::getDescription() const {
  XMLNode device("device");
  device.addSubNode("deviceType", "urn:" + descr.deviceType);
  device.addSubNode("friendlyName", descr.friendlyName);
  device.addSubNode("manufacturer", descr.manufacturer);
  addUnlessEmpty(device, "manufacturerURL", descr.manufacturerURL);
  addUnlessEmpty(device, "modelDescription", descr.modelDescription);
  device.addSubNode("modelName", descr.modelName);
  addUnlessEmpty(device, "modelNumber", descr.modelNumber);
  addUnlessEmpty(device, "modelURL", descr.modelURL);
  addUnlessEmpty(device, "serialNumber", descr.serialNumber);
  device.addSubNode("UDN", udn());
  addUnlessEmpty(device, "UPC", descr.UPC);
  if (!descr.icons.empty()) {
    XMLNode& list = device.addSubNode(XMLNode("iconList"));
    for (const UpnpIcon& icon : descr.icons) list.addSubNode(icon.getDescription());
  }
  XMLNode& serviceList = device.addSubNode(XMLNode("serviceList"));
  for (const UpnpServiceDescr& service : services) serviceList.addSubNode(service.getDescription());
  if (!devices.empty()) {
    XMLNode& list = device.addSubNode(XMLNode("deviceList"));
    for (const UpnpDevice& embedded : devices) list.addSubNode(embedded.getDescription());
  }
  addUnlessEmpty(device, "presentationURL", descr.presentationURL);
  return device;
}

void UpnpDevice::getSearchTargets(SearchTargets& targets) const {
  const std::string type = "urn:" + descr.deviceType;
  targets.emplace(udn(), udn());
  targets.emplace(type, udn() + "::" + type);
  for (const UpnpServiceDescr& service : services) {
    targets.emplace(service.serviceType, udn() + "::" + service.serviceType);
  }
  for (const UpnpDevice& embedded : devices) embedded.getSearchTargets(targets);
}
