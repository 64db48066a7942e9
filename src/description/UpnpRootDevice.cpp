#include "description/UpnpRootDevice.h"

XMLNode UpnpRootDevice::getDescription() const {
  XMLNode root("root");
  root.addProperty("xmlns", "urn:schemas-upnp-org:device-1-0");
  XMLNode& specVersion = root.addSubNode(XMLNode("specVersion"));
  specVersion.addSubNode("major", "1");
  specVersion.addSubNode("minor", "0");
  root.addSubNode(UpnpDevice::getDescription());
  return root;
}

void UpnpRootDevice::getSearchTargets(SearchTargets& targets) const {
  targets.emplace("upnp:rootdevice", udn() + "::upnp:rootdevice");
  UpnpDevice::getSearchTargets(targets);
}
