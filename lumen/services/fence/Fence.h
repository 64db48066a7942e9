#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "lumen/services/fence/FenceRules.h"
#include "lumen/services/fence/NameServers.h"
#include "lumen/services/interfaces/KeptNames.h"
#include "lumen/services/supervisor/ServiceFile.h"
#include "lumen/services/system/netfilter/Nftables.h"
#include "lumen/services/system/netlink/Links.h"
#include "lumen/values/Result.h"
#include "platform/Timer.h"

namespace lumen {

/// Keeps the packets of the services to the hosts that their service files grant, whatever the
/// programs do. It follows the interfaces, their addresses and roles, and the name servers. The
/// kernel drops it with lumend's other tables when this process ends.
///
/// What it is told counts from its return on: it must hear of a change before any service does.
class Fence : public Links::Listener, public KeptNames::Listener {
 public:
  /// In all; routers have far fewer. Hosts of further networks are not reached.
  static constexpr size_t maxNetworks = 256;

  /// `configurations` are the paths of the resolv.conf files, of which the first that exists
  /// counts. `nftables` must outlive this.
  Fence(Nftables& nftables, const std::vector<ServiceDefinition>& services,
        std::vector<std::string> configurations);
  Fence(const Fence&) = delete;
  Fence& operator=(const Fence&) = delete;

  /// Puts the fence up, with the name servers of now. The tables must not exist. Fails with one
  /// line, also when the kernel has IPv6 but cannot fence it.
  [[nodiscard]] Result<void> open();

  /// Reads the name servers again: to be called before the resolver does.
  void readNameServers();

  void internalNames(std::set<std::string> names) override;
  void tablesRead(const LinkSnapshot& all) override;
  void linkChanged(const Link& link) override;
  void linkGone(uint32_t index) override;
  void addressAdded(uint32_t index, const LinkAddress& address) override;
  void addressRemoved(uint32_t index, const LinkAddress& address) override;

 private:
  [[nodiscard]] fence::Internal findInternal();
  /// Brings the IPv6 table to the names of internal interfaces; false: the kernel refused.
  [[nodiscard]] bool updateIpv6();
  /// Brings the kernel to what is known; what it refuses is logged and tried again later.
  void update();
  [[nodiscard]] bool run(const std::string& commands);

  Nftables& nftables_;
  const fence::Users users_;
  const std::vector<std::string> configurations_;
  bool open_ = false;
  bool ipv6_ = false;  // there is a table for it

  LinkSnapshot links_;
  std::set<std::string> internalNames_;
  NameServers nameServers_;

  // As the kernel has it.
  fence::Internal grantedInternal_;
  std::set<std::string> grantedIpv6Names_;
  NameServers grantedServers_;

  std::set<std::string> unnamed_;  // interfaces that were reported because they cannot be named
  bool tooMany_ = false;           // networks, as was reported
  lm::Timer retry_;
};

}  // namespace lumen
