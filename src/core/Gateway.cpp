#include "core/Gateway.h"

#include <vector>

#include "base/Log.h"
#include "core/PlatformTables.h"
#include "platform/Keys.h"
#include "platform/Looper.h"

Gateway* theGateway = nullptr;

namespace {

constexpr uint32_t leaveDelay = 1000;  // milliseconds
constexpr uint32_t settingsRecord = 0;
constexpr uint32_t identityKey = 0x20000001;

// The settings, all bool.
constexpr uint32_t enabledKey = 1;
constexpr uint32_t allowDisableKey = 2;
constexpr uint32_t showDummyRuleKey = 3;

}  // namespace

Gateway::Gateway() : lm::Map<DevObj>("/lumen/store/upnp", 1, -2) {}

Gateway::~Gateway() {
  if (enabled) disable();
  logLine("exit");
  if (theGateway == this) theGateway = nullptr;
}

void Gateway::init() {
  lm::message request;
  request.insert_u32_array(lm::key::destination, {lm::service::identity});
  identity = exchangeCmd(request, lm::cmd::get, lm::exchangeLimit).get_string(identityKey);

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
  subscribe(lm::cmd::changed, interface_table::path);
  subscribe(lm::cmd::changed, address_table::path);
  devicesStatus({});
  addrsChanged({});
  for (const DevObj* object : objects()) {
    Device* device = knownDevice(object->interface);
    if (device == nullptr) continue;
    if (device->type == interface_type::external) startExternal(*device);
    if (device->type == interface_type::internal) startInternal(*device);
  }
}

void Gateway::disable() {
  logLine("disable");
  lm::getLooper().setupLeave(leaveDelay);
  unsubscribe(lm::cmd::changed, interface_table::path);
  unsubscribe(lm::cmd::changed, address_table::path);
  for (const DevObj* object : objects()) {
    Device* device = knownDevice(object->interface);
    if (device == nullptr) continue;
    if (device->type == interface_type::external) stopExternal(*device);
    if (device->type == interface_type::internal) stopInternal(*device);
  }
  // What is still in use has no object any more that could stop it.
  for (const auto& [id, device] : devices) retire(*device);
  for (const auto& [id, device] : departed) retire(*device);
  departed.clear();
  osInfo.flushSubscriptions();
}

void Gateway::readSettings(const lm::message& from) {
  enabled = from.get_bool(enabledKey, enabled);
  allowDisableExternalInterface = from.get_bool(allowDisableKey, allowDisableExternalInterface);
  showDummyRule = from.get_bool(showDummyRuleKey, showDummyRule);
}

void Gateway::writeSettings(lm::message& to) const {
  to.insert_bool(enabledKey, enabled);
  to.insert_bool(allowDisableKey, allowDisableExternalInterface);
  to.insert_bool(showDummyRuleKey, showDummyRule);
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
      if (source == interface_table::path) {
        devicesStatus(request);
      } else if (source == address_table::path) {
        addrsChanged(request);
      }
      return {};
    }
    default:
      return Handler::cmdUnknown(request, command);
  }
}
