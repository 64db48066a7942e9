#include "lumen/services/Platform.h"

#include <grp.h>

#include <optional>
#include <utility>

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
                   std::vector<ServiceDefinition> services)
    : fence_(nftables_, services, path::nameServers),
      supervisor_(std::move(services), processes, loop.clock(), path::runFolder),
      broker_(supervisor_, loop.clock(), administratorGroup()),
      identity_(path::store("identity")),
      history_(path::store("history")),
      clientLimit_(nftables_),
      linksOfFence_(links_, fence_),
      linksOfTables_(linksOfFence_, clientLimit_),
      addresses_(broker_),
      interfaces_(linksOfTables_, addresses_, broker_, fence_, path::store("interfaces"),
                  loop.clock()),
      natMap_(nftables_),
      flowMarks_(path::flowMarks),
      policies_(path::natPolicy, path::store("nat")),
      portLog_(broker_),
      natRules_(natMap_, flows_, flowMarks_, addresses_, interfaces_, listeners_, policies_,
                portLog_, loop.clock()),
      listener_(broker_) {
  supervisor_.setObserver(broker_);
  supervisor_.listenToRequests(*this);
  broker_.addLocal(lm::service::identity, 0, identity_);
  broker_.addLocal(lm::service::history, 0, history_);
  broker_.addLocal(lm::service::interfaces, lm::handler::interfaces, interfaces_);
  broker_.addLocal(lm::service::interfaces, lm::handler::addresses, addresses_);
  broker_.addLocal(lm::service::interfaces, lm::handler::natRules, natRules_);
  broker_.addLocal(lm::service::interfaces, lm::handler::portLog, portLog_);
}

Result<void> Platform::start() {
  if (const auto loaded = policies_.load(); !loaded) return Failure{"NAT policy: " + loaded.why()};
  if (const auto open = natMap_.open(path::natRuleset); !open) {
    return Failure{"NAT table: " + open.why()};
  }
  if (const auto fenced = fence_.open(); !fenced) return Failure{"fence: " + fenced.why()};
  clientLimit_.open();
  natRules_.endOldFlows();
  interfaces_.start();
  if (auto listening = listener_.listen(lm::socketPath); !listening) return listening;
  supervisor_.boot();
  return {};
}

void Platform::asked(const ServiceDefinition& service) {
  if (service.network == NetworkGrant::nameServers) fence_.readNameServers();
}

}  // namespace lumen
