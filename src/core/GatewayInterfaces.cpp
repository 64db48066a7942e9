// Starting and stopping an interface: sockets and adverts on the LAN side, a sub-tree with two
// services on the WAN side.

#include <algorithm>

#include "base/Log.h"
#include "core/Gateway.h"
#include "core/WANTree.h"
#include "net/Address.h"
#include "ssdp/Advertiser.h"

namespace {

/// One burst on an internal interface that is started.
void announce(const Device& device, const SearchTargets& targets, bool byebye) {
  sendAdverts(device.discoverySocket.get(), device.address, targets, byebye);
}

}  // namespace

void Gateway::start(Device& device) {
  if (device.type == interface_type::external) startExternal(device);
  if (device.type == interface_type::internal) startInternal(device);
}

void Gateway::stop(Device& device) {
  if (device.type == interface_type::external) stopExternal(device);
  if (device.type == interface_type::internal) stopInternal(device);
}

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
  announce(device, searchTargets, true);
  device.closeSockets();
  device.started = false;
}

void Gateway::startExternal(Device& device) {
  if (device.started) return;
  logLine("start ext: ", device.displayName());
  const WANTree tree(identity, device.id());
  const UpnpDevice wanDevice = tree.device();
  embed(wanDevice);

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
  const auto wanDevice = findWanDevice(device);
  if (wanDevice != UpnpRootDevice::devices.end()) {
    SearchTargets withdrawn;
    wanDevice->getSearchTargets(withdrawn);
    sendAdvertsEverywhere(withdrawn, true);
    // In this order searches for the device are answered until the next rebuild.
    rebuildSearchTargets();
    removeEmbedded(wanDevice);
  }
  destroyServices(device);
  device.started = false;
}

void Gateway::retire(Device& device) {
  device.closeSockets();
  if (device.commonIfc) {
    const auto wanDevice = findWanDevice(device);
    if (wanDevice != UpnpRootDevice::devices.end()) removeEmbedded(wanDevice);
    rebuildSearchTargets();
    destroyServices(device);
  }
  device.started = false;
}

void Gateway::embed(const UpnpDevice& wanDevice) {
  UpnpRootDevice::devices.push_back(wanDevice);
  description_.clear();
}

void Gateway::removeEmbedded(std::list<UpnpDevice>::iterator wanDevice) {
  UpnpRootDevice::devices.erase(wanDevice);
  description_.clear();
}

std::list<UpnpDevice>::iterator Gateway::findWanDevice(const Device& device) {
  const std::string udn = WANTree::udn(identity, device.id());
  return std::ranges::find_if(UpnpRootDevice::devices, [&udn](const UpnpDevice& embedded) {
    return embedded.descr.UDN == udn;
  });
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

void Gateway::advertise(const Device& device) const { announce(device, searchTargets, false); }

void Gateway::sendAdvertsEverywhere(const SearchTargets& targets, bool byebye) const {
  for (const auto& [id, device] : devices) {
    if (!device->isStarted(interface_type::internal)) continue;
    announce(*device, targets, byebye);
  }
}
