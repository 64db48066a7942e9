#pragma once

#include <list>
#include <map>
#include <string>

#include "description/UpnpDeviceDescr.h"
#include "description/UpnpServiceDescr.h"
#include "xml/XMLNode.h"

/// Maps search targets (NT and ST in SSDP) to unique service names, in byte order of the targets;
/// equal targets keep their order of insertion.
using SearchTargets = std::multimap<std::string, std::string>;

/// A device with its services and embedded devices, held by value.
class UpnpDevice {
 public:
  explicit UpnpDevice(UpnpDeviceDescr deviceDescr) : descr(std::move(deviceDescr)) {}
  UpnpDevice(const UpnpDevice&) = default;
  UpnpDevice& operator=(const UpnpDevice&) = default;
  UpnpDevice(UpnpDevice&&) = default;
  UpnpDevice& operator=(UpnpDevice&&) = default;
  virtual ~UpnpDevice() = default;

  /// The device's element of the description document (UPnP Device Architecture 1.0 section 2.1).
  [[nodiscard]] virtual XMLNode getDescription() const;
  /// Inserts the search targets of this device, its services and its embedded devices (section
  /// 1.1.2).
  virtual void getSearchTargets(SearchTargets& targets) const;

  UpnpDeviceDescr descr;
  std::list<UpnpDevice> devices;         ///< embedded devices
  std::list<UpnpServiceDescr> services;  ///< this device's own

 protected:
  /// "uuid:" and the UDN.
  [[nodiscard]] std::string udn() const { return "uuid:" + descr.UDN; }
};
