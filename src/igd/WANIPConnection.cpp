#include "igd/WANIPConnection.h"

#include <algorithm>

#include "base/Log.h"
#include "base/Text.h"
#include "igd/NatRules.h"
#include "net/Address.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/System.h"
#include "platform/wire/Interfaces.h"

namespace {

/// The most bytes that the descriptions of all mappings may take together, so that LAN hosts cannot
/// exhaust the router's memory. Short descriptions are never refused: the platform bounds their
/// number.
constexpr size_t descriptionsLimit = 4UL * 1024 * 1024;
constexpr size_t shortDescription = 256;
/// The share of one internal client: enough for short descriptions of the 1,024 mappings that the
/// platform allows it by default.
constexpr size_t clientDescriptionsLimit = 1024 * shortDescription;

/// The entry listed first, for clients that do not work with an empty list.
PortMap dummyMapping() {
  PortMap dummy;
  dummy.description = "Dummy inactive rule for windows to work";
  return dummy;
}

Id idOf(const std::string& externalPort, const std::string& protocol) {
  return {static_cast<uint16_t>(strtouint(externalPort)), protocol == "TCP" ? Id::tcp : Id::udp};
}

/// Whether the description of `wanted` may replace one of `replaced` bytes, 0 for a new mapping. A
/// description no longer than the one it replaces always may. Returns false after a log line.
bool hasRoomFor(const PortMap& wanted, size_t replaced, const PortMaps& portMaps) {
  const size_t length = wanted.description.size();
  if (length <= std::max(shortDescription, replaced)) return true;
  size_t all = length - replaced;
  size_t ofClient = all;
  for (size_t i = 0; i < portMaps.size(); ++i) {
    const PortMap& mapping = portMaps.at(i).second;
    all += mapping.description.size();
    if (mapping.internalClient == wanted.internalClient) ofClient += mapping.description.size();
  }
  if (all <= descriptionsLimit && ofClient <= clientDescriptionsLimit) return true;
  logLine("addPortMapping: no room for the description");
  return false;
}

/// Appends the common end of both entry actions: internal port and client, enabled, description,
/// lease.
void appendMapping(const PortMap& mapping, std::vector<std::string>& out) {
  out.push_back(uinttostr(mapping.internalPort));
  out.push_back(iptostr(mapping.internalClient));
  out.push_back(mapping.enabled ? "1" : "0");
  out.push_back(mapping.description);
  out.push_back(uinttostr(mapping.leaseDuration));
}

/// Appends the whole entry: remote host, external port, protocol and the mapping.
void appendEntry(const Id& id, const PortMap& mapping, std::vector<std::string>& out) {
  out.emplace_back();
  out.push_back(uinttostr(id.externalPort));
  out.push_back(id.protocol == Id::tcp ? "TCP" : "UDP");
  appendMapping(mapping, out);
}

}  // namespace

WANIPConnection::WANIPConnection(uint32_t interfaceId, uint32_t address)
    : Service("urn:schemas-upnp-org:service:WANIPConnection:1"),
      deviceId(interfaceId),
      externalIP(address) {
  logLine("initial external addr: ", iptostr(address));
  registerVariables();
  registerActions();
}

WANIPConnection::~WANIPConnection() {
  for (size_t i = 0; i < portMaps.size(); ++i) {
    const lm::message reply = nat::forgetRule(portMaps.at(i).second);
    if (lm::isError(reply)) logLine("on cleanup remove nat failed: ", lm::getError(reply));
  }
}

void WANIPConnection::registerVariables() {
  addVar("ConnectionType", {makeContainer("Unconfigured", "IP_Routed", "IP_Bridged"), false})
      .setValue("IP_Routed");
  addVar("PossibleConnectionTypes", {makeContainer("IP_Routed"), true}).setValue("IP_Routed");
  addVar("ConnectionStatus",
         {makeContainer("Unconfigured", "Connected", "Disconnected", "Connecting"), true})
      .setValue("Unconfigured");
  addVar("X_Name", {VAR_STRING, false}).setValue("Local Area Connection");
  addVar("Uptime", {VAR_UI4, false}).setValue(this, &WANIPConnection::getUptime);
  addVar("LastConnectionError", {makeContainer("ERROR_NONE"), false}).setValue("ERROR_NONE");
  addVar("RSIPAvailable", {VAR_BOOLEAN, false}).setValue("0");
  addVar("NATEnabled", {VAR_BOOLEAN, false}).setValue("1");
  addVar("ExternalIPAddress", {VAR_STRING, true}).setValue(iptostr(externalIP));
  addVar("PortMappingNumberOfEntries", {VAR_UI2, true}).setValue("0");
  // The rest only define the types of the mapping actions' arguments.
  addVar("PortMappingEnabled", {VAR_BOOLEAN, false});
  addVar("PortMappingLeaseDuration", {VAR_UI4, false});
  addVar("RemoteHost", {VAR_STRING, false});
  addVar("ExternalPort", {VAR_UI2, false});
  addVar("InternalPort", {VAR_UI2, false});
  addVar("PortMappingProtocol", {makeContainer("TCP", "UDP"), false});
  addVar("InternalClient", {VAR_STRING, false});
  addVar("PortMappingDescription", {VAR_STRING, false});
}

void WANIPConnection::registerActions() {
  using Self = WANIPConnection;

  // The key and the target of a mapping: related variables and argument names.
  const Values keyVars{"RemoteHost", "ExternalPort", "PortMappingProtocol"};
  const Values keyArgs{"NewRemoteHost", "NewExternalPort", "NewProtocol"};
  const Values targetVars{"InternalPort", "InternalClient", "PortMappingEnabled",
                          "PortMappingDescription", "PortMappingLeaseDuration"};
  const Values targetArgs{"NewInternalPort", "NewInternalClient", "NewEnabled",
                          "NewPortMappingDescription", "NewLeaseDuration"};
  const auto both = [](Values first, const Values& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
  };
  const Values entryVars = both(keyVars, targetVars);
  const Values entryArgs = both(keyArgs, targetArgs);

  addAct("SetConnectionType", {"ConnectionType"}, {"NewConnectionType"}, {}, {}, this,
         &Self::setConnectionType);
  addAct("GetConnectionTypeInfo", {"ConnectionType", "PossibleConnectionTypes"});
  addAct("RequestConnection", {}, {}, {}, {}, this, &Self::requestConnection);
  addAct("ForceTermination", {}, {}, {}, {}, this, &Self::forceTermination);
  addAct("GetStatusInfo", {"ConnectionStatus", "LastConnectionError", "Uptime"});
  addAct("GetNATRSIPStatus", {"RSIPAvailable", "NATEnabled"});
  addAct("GetGenericPortMappingEntry", {"PortMappingNumberOfEntries"}, {"NewPortMappingIndex"},
         entryVars, entryArgs, this, &Self::getGenericPortMappingEntry);
  addAct("GetSpecificPortMappingEntry", keyVars, keyArgs, targetVars, targetArgs, this,
         &Self::getSpecificPortMappingEntry);
  addAct("AddPortMapping", entryVars, entryArgs, {}, {}, this, &Self::addPortMapping);
  addAct("DeletePortMapping", keyVars, keyArgs, {}, {}, this, &Self::deletePortMapping);
  addAct("GetExternalIPAddress", {"ExternalIPAddress"});
}

void WANIPConnection::setStatus(Status status) {
  const auto text = [status] {
    switch (status) {
      case STATUS_CONNECTING:
        return "Connecting";
      case STATUS_CONNECTED:
        return "Connected";
      case STATUS_DISCONNECTED:
        return "Disconnected";
      default:
        return "Unconfigured";
    }
  };
  setVar("ConnectionStatus", text());
}

void WANIPConnection::setExternalIP(uint32_t address) {
  logLine("set external ip ", iptostr(address));
  externalIP = address;
  setVar("ExternalIPAddress", iptostr(address));
}

void WANIPConnection::setAllowDisIface(bool allow) { allowDisIface = allow; }

void WANIPConnection::setShowDummyRule(bool show) {
  if (show == showDummyRule) return;
  showDummyRule = show;
  countEntries();
}

void WANIPConnection::countEntries() {
  const size_t entries = portMaps.size() + (showDummyRule ? 1 : 0);
  setVar("PortMappingNumberOfEntries", uinttostr(static_cast<uint32_t>(entries)));
}

std::string WANIPConnection::getUptime() { return uinttostr(lm::getUptime()); }

UPNPStatus WANIPConnection::setConnectionType(const Values& /*in*/, Values& /*out*/) {
  return UPNP_ACTION_FAILED;
}

UPNPStatus WANIPConnection::requestConnection(const Values& /*in*/, Values& /*out*/) {
  // The status becomes "Connected" when the platform reports that the interface runs.
  return switchInterface(false, STATUS_CONNECTING);
}

UPNPStatus WANIPConnection::forceTermination(const Values& /*in*/, Values& /*out*/) {
  return switchInterface(true, STATUS_DISCONNECTED);
}

UPNPStatus WANIPConnection::switchInterface(bool disabled, Status next) {
  if (!allowDisIface) return UPNP_ACTION_FAILED;
  lm::message request;
  request.insert_u32_array(lm::key::destination, lm::interfaces::path());
  request.insert_u32(lm::key::objectId, deviceId);
  request.insert_bool(lm::key::disabled, disabled);
  const lm::message reply =
      lm::getLooper().exchangeCmd(request, lm::cmd::setObject, lm::exchangeLimit);
  if (lm::isError(reply)) {
    logLine(disabled ? "disable" : "enable", " device failed: ", lm::getError(reply));
    return UPNP_ACTION_FAILED;
  }
  setStatus(next);
  return UPNP_SUCCESS;
}

UPNPStatus WANIPConnection::getGenericPortMappingEntry(const Values& in, Values& out) {
  uint32_t index = strtouint(in[0]);
  if (showDummyRule) {
    if (index == 0) {
      appendEntry({}, dummyMapping(), out);
      return UPNP_SUCCESS;
    }
    --index;
  }
  if (index >= portMaps.size()) return UPNP_SPECIFIED_ARRAY_INDEX_INVALID;
  const auto& [id, mapping] = portMaps.at(index);
  appendEntry(id, mapping, out);
  return UPNP_SUCCESS;
}

UPNPStatus WANIPConnection::getSpecificPortMappingEntry(const Values& in, Values& out) {
  const std::string& remoteHost = in[0];
  const std::string& externalPort = in[1];
  const std::string& protocol = in[2];
  // A client that has seen the dummy can read it again even when it is no longer listed.
  if (remoteHost.empty() && externalPort == "0" && protocol == "TCP") {
    appendMapping(dummyMapping(), out);
    return UPNP_SUCCESS;
  }
  if (!remoteHost.empty()) return UPNP_NO_SUCH_ENTRY_IN_ARRAY;
  const PortMap* found = portMaps.find(idOf(externalPort, protocol));
  if (found == nullptr) return UPNP_NO_SUCH_ENTRY_IN_ARRAY;
  appendMapping(*found, out);
  return UPNP_SUCCESS;
}

UPNPStatus WANIPConnection::addPortMapping(const Values& in, Values& /*out*/) {
  const std::string& remoteHost = in[0];
  const std::string& externalPort = in[1];
  const std::string& internalPort = in[3];
  const std::string& internalClient = in[4];
  const std::string& enabled = in[5];
  if (strtoip(remoteHost) != noAddress) {
    logLine("addPortMapping: REMOTE_ONLY_WILDCARD: '", remoteHost, "'");
    return UPNP_REMOTE_HOST_ONLY_SUPPORTS_WILDCARD;
  }
  if (externalPort.empty()) {
    logLine("addPortMapping: EXT_PORT_NO_WILDCARD");
    return UPNP_WILDCARD_NOT_PERMITTED_IN_EXT_PORT;
  }
  const Id id = idOf(externalPort, in[2]);
  PortMap mapping;
  mapping.internalPort = static_cast<uint16_t>(strtouint(internalPort));
  // A text that is no address becomes 255.255.255.255, and the NAT rule table decides on that.
  mapping.internalClient = strtoip(internalClient);
  mapping.enabled = enabled == "yes" || enabled == "1" || enabled == "true";
  mapping.description = in[6];
  mapping.leaseDuration = strtouint(in[7]);
  if (mapping.leaseDuration != 0) {
    logLine("addPortMapping: ONLY_PERM_LEASES");
    return UPNP_ONLY_PERMANENT_LEASES_SUPPORTED;
  }

  PortMap* known = portMaps.find(id);
  logLine(known ? "set map " : "add map ", externalPort, "->", internalPort, ", ", internalClient);
  if (known) return changeMapping(*known, std::move(mapping));
  if (!hasRoomFor(mapping, 0, portMaps)) return UPNP_ACTION_FAILED;

  const lm::message reply = nat::addRule(id, mapping, externalIP);
  if (lm::isError(reply)) {
    logLine("add nat failed: ", lm::getError(reply));
    return UPNP_ACTION_FAILED;
  }
  mapping.ruleId = reply.get_u32(lm::key::objectId);
  portMaps.add(id, std::move(mapping));
  countEntries();
  return UPNP_SUCCESS;
}

UPNPStatus WANIPConnection::changeMapping(PortMap& mapping, PortMap wanted) {
  if (wanted.internalClient != mapping.internalClient) {
    logLine("addPortMapping: CONFLICT_IN_ENTRY");
    return UPNP_CONFLICT_IN_MAPPING_ENTRY;
  }
  if (!hasRoomFor(wanted, mapping.description.size(), portMaps)) return UPNP_ACTION_FAILED;
  wanted.ruleId = mapping.ruleId;
  const lm::message reply = nat::setRule(wanted);
  if (lm::isError(reply)) {
    logLine("set nat failed: ", lm::getError(reply));
    return UPNP_ACTION_FAILED;
  }
  mapping = std::move(wanted);
  return UPNP_SUCCESS;
}

UPNPStatus WANIPConnection::deletePortMapping(const Values& in, Values& /*out*/) {
  const std::string& externalPort = in[1];
  const Id id = idOf(externalPort, in[2]);
  const PortMap* found = portMaps.find(id);
  if (found == nullptr) {
    logLine("deletePortMapping: NO_SUCH_ENTRY");
    return UPNP_NO_SUCH_ENTRY_IN_ARRAY;
  }
  logLine("del map ", externalPort);
  const lm::message reply = nat::removeRule(*found);
  if (lm::isError(reply)) {
    logLine("remove nat failed: ", lm::getError(reply));
    return UPNP_ACTION_FAILED;
  }
  portMaps.erase(id);
  countEntries();
  return UPNP_SUCCESS;
}
