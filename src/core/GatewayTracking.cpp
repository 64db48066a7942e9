// The gateway's mirror of the platform's interfaces and addresses.

#include <algorithm>
#include <utility>

#include "base/Log.h"
#include "core/Gateway.h"
#include "net/Address.h"
#include "platform/Keys.h"
#include "platform/Reget.h"
#include "platform/wire/Addresses.h"
#include "platform/wire/Interfaces.h"

namespace {

constexpr uint32_t statusLimit = 3000;  // milliseconds

lm::message fullRead(const std::vector<uint32_t>& table) {
  lm::message request;
  request.insert_u32_array(lm::key::destination, table);
  request.insert_u32(lm::key::command, lm::cmd::readAll);
  return request;
}

void logFailure(const lm::Reget& table) {
  if (table.error()) logLine("device::CMD_GETALL failed: ", lm::getError(*table.error()));
}

}  // namespace

void Gateway::refreshDevices() {
  if (!enabled) {
    unsubscribe(lm::cmd::interfaceChanged, lm::interfaces::path());
    return;
  }
  devices.clear();
  subscribe(lm::cmd::interfaceChanged, lm::interfaces::path());
  uint32_t cursor = lm::none;
  do {
    lm::message request;
    request.insert_u32_array(lm::key::destination, lm::interfaces::path());
    if (cursor != lm::none) request.insert_u32(lm::key::cursor, cursor);
    const lm::message reply = exchangeCmd(request, lm::cmd::list, lm::exchangeLimit);
    if (!reply.has_array(lm::key::records)) {
      logLine("device::CMD_GETDEVS failed: ", lm::getError(reply));
    }
    for (const lm::message& record : reply.get_message_array_ref(lm::key::records)) {
      deviceChanged(record);
    }
    const uint32_t next = reply.get_u32(lm::key::cursor, lm::none);
    if (cursor != lm::none && next <= cursor) {
      logLine("device::CMD_GETDEVS failed: cursor does not rise");
      return;
    }
    cursor = next;
  } while (cursor != lm::none);
}

void Gateway::deviceChanged(const lm::message& record) {
  const uint32_t id = record.get_u32(lm::key::objectId);
  const std::string name = record.get_string(lm::interfaces::key::displayName);
  const auto known = devices.find(id);
  if ((record.get_u32(lm::interfaces::key::flags) & lm::interfaces::goneFlags) != 0) {
    logLine("rem dev: ", name);
    if (known == devices.end()) return;
    if (known->second->started) departed_[id] = std::move(known->second);
    devices.erase(known);
  } else if (known != devices.end()) {
    logLine("set dev: ", name, " (", id, ")");
    known->second->record = record;
  } else {
    logLine("add dev: ", name);
    addDevice(record);
  }
}

void Gateway::addDevice(const lm::message& record) {
  const auto device = std::make_shared<Device>(record);
  const uint32_t id = device->id();
  if (const auto former = departed_.find(id); former != departed_.end()) {
    retire(*former->second);
    departed_.erase(former);
  }
  for (const auto& [addrId, addr] : addrs) {
    if (addr.interface == id) device->addresses.insert(addr.address);
  }
  device->address = device->currentAddress();
  for (const DevObj* object : objects()) {
    if (object->interface != id) continue;
    device->type = object->type;
    logLine("set type: ", device->type, " ", id);
    if (enabled) start(*device);
  }
  devices[id] = device;
}

void Gateway::devicesStatus(const lm::message& change) {
  if (change.size_message_array(lm::key::records) > 0) {
    for (const lm::message& record : change.get_message_array_ref(lm::key::records)) {
      deviceStatus(record);
    }
    return;
  }
  lm::FullReget table(*this, fullRead(lm::interfaces::path()), statusLimit);
  while (const std::optional<lm::message> record = table.pop()) deviceStatus(*record);
  logFailure(table);
}

void Gateway::deviceStatus(const lm::message& record) {
  const uint32_t id = record.get_u32(lm::key::objectId);
  Device* device = knownDevice(id);
  if (device == nullptr) return;
  device->disabled = record.get_bool(lm::key::disabled, device->disabled);
  device->running = record.get_bool(lm::interfaces::key::running, device->running);
  logLine("dev: ", id, " disabled: ", device->disabled, " running: ", device->running);
  if (device->ipConn) device->ipConn->setStatus(device->connectionStatus());
}

void Gateway::addrsChanged(const lm::message& change) {
  if (change.size_message_array(lm::key::records) > 0) {
    for (const lm::message& record : change.get_message_array_ref(lm::key::records)) {
      addrChanged(record);
    }
    return;
  }
  for (auto& [id, addr] : addrs) addr.stale = true;
  lm::FullReget table(*this, fullRead(lm::addresses::path()));
  while (const std::optional<lm::message> record = table.pop()) addrChanged(*record);
  logFailure(table);
  std::erase_if(addrs, [](const auto& entry) { return entry.second.stale; });
}

void Gateway::addrChanged(const lm::message& record) {
  const uint32_t id = record.get_u32(lm::key::objectId);
  const uint32_t interface = record.get_u32(lm::addresses::key::interface,
                                            record.get_u32(lm::addresses::key::otherInterface));
  const bool active = !record.get_bool(lm::key::disabled);
  const auto known = addrs.find(id);

  if (record.get_u32(lm::key::removed) != 0) {
    if (!active || known == addrs.end()) return;
    const Addr removed = known->second;
    logLine("dev: ", removed.interface, " remove address: ", iptostr(removed.address), " (", id,
            ")");
    setDevAddr(removed.interface, removed.address, false);
    addrs.erase(known);
  } else if (known != addrs.end()) {
    Addr& addr = known->second;
    const uint32_t newAddress = record.get_be32(lm::addresses::key::address, addr.address);
    const uint32_t newInterface = interface != 0 ? interface : addr.interface;
    logLine("dev: ", newInterface, " set address: ", iptostr(newAddress), " (", id, ")");
    setDevAddr(newInterface, newAddress, active);
    if (newInterface != addr.interface || newAddress != addr.address) {
      setDevAddr(addr.interface, addr.address, false);
    }
    addr = {newAddress, newInterface, false};
  } else {
    const Addr& addr = addrs[id] = {record.get_be32(lm::addresses::key::address), interface, false};
    logLine("dev: ", interface, " add address: ", iptostr(addr.address), " (", id, ")");
    setDevAddr(interface, addr.address, active);
  }
}

void Gateway::setDevAddr(uint32_t interface, uint32_t address, bool add) {
  Device* device = knownDevice(interface);
  if (device == nullptr) return;
  if (add) {
    device->addresses.insert(address);
  } else {
    device->addresses.erase(address);
  }
  const uint32_t current = device->currentAddress();
  if (current == device->address) return;
  logLine("dev: ", interface, " ip: ", iptostr(current));
  if (enabled && device->type == interface_type::external && device->ipConn) {
    device->ipConn->setExternalIP(current);
  }
  if (enabled && device->type == interface_type::internal) {
    stopInternal(*device);
    device->address = current;
    if (current != 0) startInternal(*device);
  }
  device->address = current;
}

Device* Gateway::knownDevice(uint32_t interface) const {
  const auto known = devices.find(interface);
  return known == devices.end() ? nullptr : known->second.get();
}
