#include "igd/WANCommonInterfaceConfig.h"

#include "base/Text.h"
#include "igd/DeviceStats.h"
#include "platform/Keys.h"
#include "platform/System.h"
#include "platform/wire/Interfaces.h"

WANCommonInterfaceConfig::WANCommonInterfaceConfig(const lm::message& record)
    : Service("urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1") {
  using Self = WANCommonInterfaceConfig;

  addVar("WANAccessType", {makeContainer("DSL", "POTS", "Cable", "Ethernet"), false})
      .setValue(record.get_u32(lm::interfaces::key::hardwareType) == lm::interfaces::ethernet
                    ? "Ethernet"
                    : "Other");
  addVar("Layer1UpstreamMaxBitRate", {VAR_UI4, false});
  addVar("Layer1DownstreamMaxBitRate", {VAR_UI4, false});
  addVar("PhysicalLinkStatus", {makeContainer("Up", "Down"), true}).setValue("Up");
  addVar("TotalBytesSent", {VAR_UI4, false}).setValue(this, &Self::getTotalBytesSent);
  addVar("TotalBytesReceived", {VAR_UI4, false}).setValue(this, &Self::getTotalBytesReceived);
  addVar("TotalPacketsSent", {VAR_UI4, false}).setValue(this, &Self::getTotalPacketsSent);
  addVar("TotalPacketsReceived", {VAR_UI4, false}).setValue(this, &Self::getTotalPacketsReceived);
  addVar("X_Uptime", {VAR_UI4, false}).setValue(this, &Self::getUptime);

  addAct("GetCommonLinkProperties", {"WANAccessType", "Layer1UpstreamMaxBitRate",
                                     "Layer1DownstreamMaxBitRate", "PhysicalLinkStatus"});
  addAct("GetTotalBytesSent", {"TotalBytesSent"});
  addAct("GetTotalBytesReceived", {"TotalBytesReceived"});
  addAct("GetTotalPacketsSent", {"TotalPacketsSent"});
  addAct("GetTotalPacketsReceived", {"TotalPacketsReceived"});
  // These are the argument names of Windows' Internet Connection Sharing.
  addAct("X_GetICSStatistics",
         {"TotalBytesSent", "TotalBytesReceived", "TotalPacketsSent", "TotalPacketsReceived",
          "Layer1DownstreamMaxBitRate", "X_Uptime"},
         {"TotalBytesSent", "TotalBytesReceived", "TotalPacketsSent", "TotalPacketsReceived",
          "Layer1DownstreamMaxBitRate", "Uptime"});

  setInterface(record);
}

void WANCommonInterfaceConfig::setInterface(const lm::message& record) {
  interfaceRecord = record;
  setVar("Layer1UpstreamMaxBitRate", "10000000");
  setVar("Layer1DownstreamMaxBitRate", "10000000");
}

DeviceStats WANCommonInterfaceConfig::stats() const {
  return getDeviceStats(interfaceRecord.get_u32(lm::key::objectId));
}

std::string WANCommonInterfaceConfig::getTotalBytesSent() { return uinttostr(stats().bytesSent); }

std::string WANCommonInterfaceConfig::getTotalBytesReceived() {
  return uinttostr(stats().bytesReceived);
}

std::string WANCommonInterfaceConfig::getTotalPacketsSent() {
  return uinttostr(stats().packetsSent);
}

std::string WANCommonInterfaceConfig::getTotalPacketsReceived() {
  return uinttostr(stats().packetsReceived);
}

std::string WANCommonInterfaceConfig::getUptime() { return uinttostr(lm::getUptime()); }
