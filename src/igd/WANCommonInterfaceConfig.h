#pragma once

#include <string>

#include "igd/DeviceStats.h"
#include "platform/message.h"
#include "upnp/Service.h"

/// WANCommonInterfaceConfig:1: the link of one external interface and its traffic counters, which
/// each read fetches from the platform.
class WANCommonInterfaceConfig : public Service {
 public:
  /// `record` is the interface's record in the platform's interface table.
  explicit WANCommonInterfaceConfig(const lm::message& record);

  /// Stores the record and sets the bit rates.
  void setInterface(const lm::message& record);

 private:
  [[nodiscard]] DeviceStats stats() const;
  [[nodiscard]] std::string getTotalBytesSent();
  [[nodiscard]] std::string getTotalBytesReceived();
  [[nodiscard]] std::string getTotalPacketsSent();
  [[nodiscard]] std::string getTotalPacketsReceived();
  [[nodiscard]] std::string getUptime();

  lm::message interfaceRecord;
};
