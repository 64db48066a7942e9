#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/addresses/AddressTable.h"
#include "lumen/services/broker/Broker.h"
#include "lumen/services/broker/Listener.h"
#include "lumen/services/fence/ClientLimit.h"
#include "lumen/services/fence/Fence.h"
#include "lumen/services/history/History.h"
#include "lumen/services/identity/Identity.h"
#include "lumen/services/interfaces/InterfaceTable.h"
#include "lumen/services/nat/NatMap.h"
#include "lumen/services/nat/NatRules.h"
#include "lumen/services/nat/PolicyBook.h"
#include "lumen/services/nat/PortLog.h"
#include "lumen/services/pinholes/Ipv6Networks.h"
#include "lumen/services/pinholes/PinholeSet.h"
#include "lumen/services/pinholes/Pinholes.h"
#include "lumen/services/supervisor/ServiceFile.h"
#include "lumen/services/supervisor/Supervisor.h"
#include "lumen/services/system/netfilter/LibNftables.h"
#include "lumen/services/system/netfilter/NetlinkFlows.h"
#include "lumen/services/system/netfilter/NetlinkIpv6Flows.h"
#include "lumen/services/system/netfilter/ThriftyNftables.h"
#include "lumen/services/system/netlink/Ipv6Forwarding.h"
#include "lumen/services/system/netlink/LinkRelay.h"
#include "lumen/services/system/netlink/NetlinkLinks.h"
#include "lumen/services/system/netlink/SocketListeners.h"
#include "lumen/services/system/processes/Processes.h"
#include "lumen/services/system/processes/StoreWatch.h"
#include "lumen/values/Result.h"

namespace lumen {

/// Where lumend finds and leaves its files.
namespace path {
inline const std::string serviceFolder = "/lumen/etc/services";
inline const std::string natRuleset = "/lumen/etc/nat-ruleset.nft";
inline const std::string pinholeRuleset = "/lumen/etc/pinhole-ruleset.nft";
inline const std::string natPolicy = "/lumen/etc/nat-policy";
inline const std::string storeFolder = "/lumen/store";
inline const std::string runFolder = "/lumen/run";
/// In the order in which the resolver looks for them.
inline const std::vector<std::string> nameServers = {"/lumen/etc/resolv.conf", "/etc/resolv.conf"};
inline const std::string lock = "/lumen/run/lumend.lock";

/// Which UDP ports flows may go through.
inline const std::string flowMarks = "/lumen/run/udp";

/// The directory of a store.
inline std::string store(const std::string& name) { return storeFolder + "/" + name; }
}  // namespace path

/// Everything that lumend does, on the real kernel.
class Platform : private Supervisor::RequestListener,
                 private StoreWatch::Observer,
                 private KeptNames::Listener {
 public:
  /// The names of lumend's own stores, directories in the store folder that must exist.
  static std::vector<std::string> stores() { return {"history", "identity", "interfaces", "nat"}; }

  /// `loop` and `processes` must outlive this.
  Platform(const lm::EventLoop& loop, Processes& processes,
           const std::vector<ServiceDefinition>& services);
  Platform(const Platform&) = delete;
  Platform& operator=(const Platform&) = delete;

  /// Starts to serve, then the services.
  [[nodiscard]] Result<void> start();

  /// Ends the services, then this.
  void shutDown() { supervisor_.shutDown(); }
  [[nodiscard]] bool isShutDown() const {
    return supervisor_.isShutDown() && natRules_.flowsEnded() && pinholes_.flowsEnded();
  }

 private:
  void watchStores(const std::vector<ServiceDefinition>& services);

  void asked(const ServiceDefinition& service) override;
  void storeExceeded(uint32_t service, const std::string& why) override;
  void internalNames(std::set<std::string> names) override;

  LibNftables kernelTables_;
  ThriftyNftables nftables_{kernelTables_};
  Fence fence_;
  StoreWatch storeWatch_;
  Supervisor supervisor_;
  Broker broker_;
  Identity identity_;
  History history_;
  NetlinkLinks links_;
  // These hear of a change before the tables do.
  ClientLimit clientLimit_;
  Ipv6Networks ipv6Networks_;
  LinkRelay linksOfFence_;
  LinkRelay linksOfPinholes_;
  LinkRelay linksOfTables_;
  AddressTable addresses_;
  InterfaceTable interfaces_;
  NatMap natMap_;
  NetlinkFlows flows_;
  FlowMarks flowMarks_;
  PolicyBook policies_;
  SocketListeners listeners_;
  PortLog portLog_;
  NatRules natRules_;
  PinholeSet pinholeSet_;
  NetlinkIpv6Flows ipv6Flows_;
  NetlinkIpv6Forwarding ipv6Forwarding_;
  Pinholes pinholes_;
  lumen::Listener listener_;
};

}  // namespace lumen
