// Start and stop of an interface: sockets and adverts on the LAN side, a sub-tree with two services
// on the WAN side.

#include <algorithm>

#include "base/Log.h"
#include "core/Gateway.h"
#include "core/WANTree.h"
#include "net/Address.h"
#include "ssdp/Advertiser.h"

void Gateway::startInternal(Device& device) {
  logLine("intr: ", device.started, " ", iptonumber(device.address));
  if (device.started || device.address == 0) return;
  logLine("start int: ", device.displayName(), " ", iptostr(device.address));
  device.openSockets(*this);
  advertise(device);
  device.started = true;
}

void Gateway::stopInternal(Device& device) {
  if (!device.started) return;
  logLine("stop int: ", device.displayName());
  sendAdverts(device.discoverySocket.get(), device.address, searchTargets, true);
  device.closeSockets();
  device.started = false;
}

void Gateway::startExternal(Device& device) {
  if (device.started) return;
  logLine("start ext: ", device.displayName());
  const WANTree tree(identity, device.id());
  const UpnpDevice wanDevice = tree.device();
  UpnpRootDevice::devices.push_back(wanDevice);

  httpStore.addUrl(tree.commonIfc.SCPDURL, "wancommonifcfg.xml");
  httpStore.addUrl(tree.ipConn.SCPDURL, "wanipconn.xml");

  device.commonIfc = std::make_unique<WANCommonInterfaceConfig>(device.record);
  device.ipConn = std::make_unique<WANIPConnection>(device.id(), device.address);
  device.ipConn->setAllowDisIface(allowDisableExternalInterface);
  registerService(*device.commonIfc, tree.commonIfc);
  registerService(*device.ipConn, tree.ipConn);
  device.ipConn->setStatus(device.connectionStatus());

  SearchTargets added;
  wanDevice.getSearchTargets(added);
  sendAdvertsEverywhere(added, false);
  rebuildSearchTargets();
  device.started = true;
}

void Gateway::stopExternal(Device& device) {
  if (!device.started) return;
  logLine("stop ext: ", device.displayName());
  std::list<UpnpDevice>& embedded = UpnpRootDevice::devices;
  const auto wanDevice = std::find_if(
      embedded.begin(), embedded.end(),
      [udn = WANTree::udn(identity, device.id())](const auto& d) { return d.descr.UDN == udn; });
  if (wanDevice != embedded.end()) {
    SearchTargets withdrawn;
    wanDevice->getSearchTargets(withdrawn);
    sendAdvertsEverywhere(withdrawn, true);
    // The tree is read while the device is still in it: whoever searches for the device is answered
    // until the targets are made anew.
    rebuildSearchTargets();
    embedded.erase(wanDevice);
  }
  destroyServices(device);
  device.started = false;
}

void Gateway::retire(Device& device) {
  device.closeSockets();
  if (device.commonIfc) {
    std::erase_if(UpnpRootDevice::devices,
                  [udn = WANTree::udn(identity, device.id())](const UpnpDevice& embedded) {
                    return embedded.descr.UDN == udn;
                  });
    rebuildSearchTargets();
    destroyServices(device);
  }
  device.started = false;
}

void Gateway::registerService(Service& service, const UpnpServiceDescr& urls) {
  eventServices[urls.eventSubURL] = &service;
  controlServices[urls.controlURL] = &service;
}

void Gateway::unregisterService(const Service* service) {
  const auto isIt = [service](const auto& entry) { return entry.second == service; };
  std::erase_if(eventServices, isIt);
  std::erase_if(controlServices, isIt);
}

void Gateway::destroyServices(Device& device) {
  unregisterService(device.commonIfc.get());
  unregisterService(device.ipConn.get());
  device.commonIfc.reset();
  device.ipConn.reset();
}

void Gateway::rebuildSearchTargets() {
  searchTargets.clear();
  getSearchTargets(searchTargets);
}

void Gateway::advertise(const Device& device) const {
  sendAdverts(device.discoverySocket.get(), device.address, searchTargets, false);
}

void Gateway::sendAdvertsEverywhere(const SearchTargets& targets, bool byebye) const {
  for (const auto& [id, device] : devices) {
    if (!device->isStarted(interface_type::internal)) continue;
    sendAdverts(device->discoverySocket.get(), device->address, targets, byebye);
  }
}
