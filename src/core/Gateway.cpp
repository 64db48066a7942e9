#include "core/Gateway.h"

#include <vector>

#include "base/Log.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/wire/Addresses.h"
#include "platform/wire/Gateway.h"
#include "platform/wire/Identity.h"
#include "platform/wire/Interfaces.h"

Gateway* theGateway = nullptr;

namespace {

constexpr uint32_t leaveDelay = 1000;  // milliseconds
constexpr uint32_t settingsRecord = 0;

}  // namespace

Gateway::Gateway() : lm::Map<DevObj>(path::interfaceStore, 1, -2) {}

Gateway::~Gateway() {
  if (enabled) disable();
  logLine("exit");
  if (theGateway == this) theGateway = nullptr;
}

void Gateway::init() {
  lm::message request;
  request.insert_u32_array(lm::key::destination, {lm::service::identity});
  identity =
      exchangeCmd(request, lm::cmd::get, lm::exchangeLimit).get_string(lm::identity::key::text);

  describeRoot();
  rebuildSearchTargets();

  AMap::init();
  if (const std::optional<lm::message> saved = store.get(settingsRecord)) {
    readSettings(*saved);
    if (enabled) {
      refreshDevices();
      enable();
    }
  }
  if (!enabled) lm::getLooper().setupLeave(leaveDelay);
}

void Gateway::describeRoot() {
  descr.deviceType = "schemas-upnp-org:device:InternetGatewayDevice:1";
  descr.friendlyName = "Kestrava Router";
  descr.UDN = "UUID-KESTRAVA-INTERNET-GATEWAY-DEVICE-" + identity;

  for (const unsigned int size : {16U, 32U, 48U}) {
    const std::string file = "logo" + std::to_string(size) + ".gif";
    descr.icons.push_back({"image/gif", size, size, 8, "/" + file});
    httpStore.addUrl("/" + file, file);
  }

  const UpnpServiceDescr osInfoDescr("microsoft-com", "OSInfo:1", "OSInfo1", "osinfo");
  services.push_back(osInfoDescr);
  httpStore.addUrl(osInfoDescr.SCPDURL, "osinfo.xml");
  registerService(osInfo, osInfoDescr);
}

void Gateway::enable() {
  logLine("enable");
  lm::getLooper().setupLeave(0);
  subscribe(lm::cmd::changed, lm::interfaces::path());
  subscribe(lm::cmd::changed, lm::addresses::path());
  devicesStatus({});
  addrsChanged({});
  for (const DevObj* object : objects()) {
    if (Device* device = knownDevice(object->interface)) start(*device);
  }
}

void Gateway::disable() {
  logLine("disable");
  lm::getLooper().setupLeave(leaveDelay);
  unsubscribe(lm::cmd::changed, lm::interfaces::path());
  unsubscribe(lm::cmd::changed, lm::addresses::path());
  for (const DevObj* object : objects()) {
    if (Device* device = knownDevice(object->interface)) stop(*device);
  }
  // Interfaces that are no longer configured were not stopped above.
  for (const auto& [id, device] : devices) retire(*device);
  for (const auto& [id, device] : departed_) retire(*device);
  departed_.clear();
  osInfo.flushSubscriptions();
}

void Gateway::readSettings(const lm::message& from) {
  enabled = from.get_bool(lm::gateway::settings::enabled, enabled);
  allowDisableExternalInterface =
      from.get_bool(lm::gateway::settings::allowDisableExternal, allowDisableExternalInterface);
  showDummyRule = from.get_bool(lm::gateway::settings::showDummyRule, showDummyRule);
}

void Gateway::writeSettings(lm::message& to) const {
  to.insert_bool(lm::gateway::settings::enabled, enabled);
  to.insert_bool(lm::gateway::settings::allowDisableExternal, allowDisableExternalInterface);
  to.insert_bool(lm::gateway::settings::showDummyRule, showDummyRule);
}

lm::message Gateway::getObject(uint32_t id) {
  if (id != lm::none) return AMap::getObject(id);
  lm::message settings;
  writeSettings(settings);
  return settings;
}

lm::message Gateway::cmdGet(const lm::message& /*request*/) { return getObject(lm::none); }

lm::message Gateway::cmdSet(const lm::message& request) {
  lm::message undo;
  undo.insert_u32(lm::key::command, lm::cmd::set);
  writeSettings(undo);

  const bool wasEnabled = enabled;
  readSettings(request);
  store.set(settingsRecord, request);

  if (enabled != wasEnabled) {
    refreshDevices();
    if (enabled) {
      enable();
    } else {
      disable();
    }
  }
  if (enabled) {
    for (const DevObj* object : objects()) {
      const Device* device = knownDevice(object->interface);
      if (device == nullptr || device->type != interface_type::external || !device->ipConn)
        continue;
      device->ipConn->setAllowDisIface(allowDisableExternalInterface);
      device->ipConn->setShowDummyRule(showDummyRule);
    }
  }

  notifyChange(lm::none, request);
  sendUndo(request, undo, "upnp config changed");
  return {};
}

lm::message Gateway::cmdUnknown(const lm::message& request, uint32_t command) {
  switch (command) {
    case lm::cmd::interfaceChanged:
      deviceChanged(request);
      return {};
    case lm::cmd::changed: {
      const std::vector<uint32_t>& source = request.get_u32_array_ref(lm::key::source);
      if (source == lm::interfaces::path()) {
        devicesStatus(request);
      } else if (source == lm::addresses::path()) {
        addrsChanged(request);
      }
      return {};
    }
    default:
      return Handler::cmdUnknown(request, command);
  }
}
