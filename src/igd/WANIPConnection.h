#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "igd/PortMaps.h"
#include "upnp/Service.h"

/// WANIPConnection:1: the state of one external interface, and the port mappings that control
/// points create on it. Each mapping has a rule in the platform's NAT rule table: the rule is added
/// before the mapping is recorded, and removed before the mapping is erased.
class WANIPConnection : public Service {
 public:
  /// The value of ConnectionStatus.
  enum Status : int {
    STATUS_UNCONFIGURED = 0,
    STATUS_CONNECTING = 1,
    STATUS_CONNECTED = 2,
    STATUS_DISCONNECTED = 3,
  };

  /// `interfaceId` is the interface's object id in the platform's interface table, `address` its
  /// IPv4 address in network byte order.
  WANIPConnection(uint32_t interfaceId, uint32_t address);
  /// Removes the rule of every mapping, with one exchange each.
  ~WANIPConnection() override;

  void setStatus(Status status);
  /// `address` is in network byte order. Existing mappings keep the address with which they were
  /// added.
  void setExternalIP(uint32_t address);
  /// Whether control points may enable and disable the interface; initially they may.
  void setAllowDisIface(bool allow);
  /// Whether the list of mappings starts with a dummy entry, for clients that do not work with an
  /// empty list; initially it does.
  void setShowDummyRule(bool show);

 private:
  using Values = std::vector<std::string>;

  void registerVariables();
  void registerActions();

  UPNPStatus setConnectionType(const Values& in, Values& out);
  UPNPStatus requestConnection(const Values& in, Values& out);
  UPNPStatus forceTermination(const Values& in, Values& out);
  UPNPStatus getGenericPortMappingEntry(const Values& in, Values& out);
  UPNPStatus getSpecificPortMappingEntry(const Values& in, Values& out);
  UPNPStatus addPortMapping(const Values& in, Values& out);
  UPNPStatus deletePortMapping(const Values& in, Values& out);

  /// Enables or disables the interface; the status becomes `next` when the platform has done it.
  UPNPStatus switchInterface(bool disabled, Status next);
  /// Updates the rule of `mapping`, then `mapping` itself, to `wanted`.
  UPNPStatus changeMapping(PortMap& mapping, PortMap wanted);
  /// Sets PortMappingNumberOfEntries.
  void countEntries();
  [[nodiscard]] std::string getUptime();

  const uint32_t deviceId;
  PortMaps portMaps;
  uint32_t externalIP;  // network byte order
  bool allowDisIface = true;
  bool showDummyRule = true;
};
