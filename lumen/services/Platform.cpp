#include "lumen/services/Platform.h"

#include <grp.h>

#include <optional>
#include <utility>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/SocketTransport.h"
#include "platform/Keys.h"

namespace lumen {

namespace {

constexpr const char* administrators = "lumen";

std::optional<gid_t> administratorGroup() {
  const group* const found = getgrnam(administrators);
  if (found == nullptr) return std::nullopt;
  return found->gr_gid;
}

}  // namespace

Platform::Platform(const lm::EventLoop& loop, Processes& processes,
                   const std::vector<ServiceDefinition>& services)
    : fence_(nftables_, services, path::nameServers),
      storeWatch_(*this),
      supervisor_(services, processes, loop.clock(), path::runFolder),
      broker_(supervisor_, loop.clock(), administratorGroup()),
      identity_(path::store("identity")),
      history_(path::store("history"), broker_),
      clientLimit_(nftables_),
      linksOfFence_(links_, fence_),
      linksOfPinholes_(linksOfFence_, ipv6Networks_),
      linksOfTables_(linksOfPinholes_, clientLimit_),
      addresses_(broker_),
      interfaces_(linksOfTables_, addresses_, broker_, *this, path::store("interfaces"),
                  loop.clock()),
      natMap_(nftables_),
      flowMarks_(path::flowMarks),
      policies_(path::natPolicy, path::store("nat")),
      portLog_(broker_),
      natRules_(natMap_, flows_, flowMarks_, addresses_, interfaces_, listeners_, policies_,
                portLog_, broker_, loop.clock()),
      pinholeSet_(nftables_),
      pinholes_(pinholeSet_, ipv6Flows_, ipv6Networks_, ipv6Forwarding_, policies_, portLog_,
                broker_, loop.clock()),
      listener_(broker_) {
  watchStores(services);
  supervisor_.setObserver(broker_);
  supervisor_.listenToRequests(*this);
  broker_.addLocal(lm::service::identity, 0, identity_);
  broker_.addLocal(lm::service::history, 0, history_);
  broker_.addLocal(lm::service::interfaces, lm::handler::interfaces, interfaces_);
  broker_.addLocal(lm::service::interfaces, lm::handler::addresses, addresses_);
  broker_.addLocal(lm::service::interfaces, lm::handler::natRules, natRules_);
  broker_.addLocal(lm::service::interfaces, lm::handler::pinholes, pinholes_);
  broker_.addLocal(lm::service::interfaces, lm::handler::portLog, portLog_);
}

Result<void> Platform::start() {
  if (const auto loaded = policies_.load(); !loaded) return Failure{"NAT policy: " + loaded.why()};
  if (const auto open = natMap_.open(path::natRuleset); !open) {
    return Failure{"NAT table: " + open.why()};
  }
  pinholes_.begin(path::pinholeRuleset);
  if (const auto fenced = fence_.open(); !fenced) return Failure{"fence: " + fenced.why()};
  clientLimit_.open();
  natRules_.endOldFlows();
  interfaces_.start();
  if (auto listening = listener_.listen(lm::socketPath); !listening) return listening;
  supervisor_.boot();
  return {};
}

void Platform::watchStores(const std::vector<ServiceDefinition>& services) {
  for (const ServiceDefinition& service : services) {
    for (const std::string& store : service.stores) {
      const auto watched = storeWatch_.add(service.number, path::store(store), service.user);
      if (!watched) lm::logLine(service.name, ": its store is not watched: ", watched.why());
    }
  }
}

// The fence first: no program may hear of a change before its packets are judged by it.
void Platform::internalNames(std::set<std::string> names) {
  fence_.internalNames(names);
  ipv6Networks_.internalNames(std::move(names));
}

void Platform::asked(const ServiceDefinition& service) {
  if (service.network == NetworkGrant::nameServers) fence_.readNameServers();
}

void Platform::storeExceeded(uint32_t service, const std::string& why) {
  supervisor_.end(service, why);
}

}  // namespace lumen
