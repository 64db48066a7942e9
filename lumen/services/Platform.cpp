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
    : supervisor_(std::move(services), processes, loop.clock(), path::runFolder),
      broker_(supervisor_, loop.clock(), administratorGroup()),
      identity_(path::store("identity")),
      history_(path::store("history")),
      addresses_(broker_),
      interfaces_(links_, addresses_, broker_, path::store("interfaces")),
      natMap_(nftables_),
      flowMarks_(path::flowMarks),
      policies_(path::natPolicy, path::store("nat")),
      natRules_(natMap_, flows_, flowMarks_, addresses_, policies_, loop.clock()),
      listener_(broker_) {
  supervisor_.setObserver(broker_);
  broker_.addLocal(lm::service::identity, 0, identity_);
  broker_.addLocal(lm::service::history, 0, history_);
  broker_.addLocal(lm::service::interfaces, lm::handler::interfaces, interfaces_);
  broker_.addLocal(lm::service::interfaces, lm::handler::addresses, addresses_);
  broker_.addLocal(lm::service::interfaces, lm::handler::natRules, natRules_);
}

Result<void> Platform::start() {
  if (const auto loaded = policies_.load(); !loaded) return Failure{"NAT policy: " + loaded.why()};
  if (const auto open = natMap_.open(path::natRuleset); !open) {
    return Failure{"NAT table: " + open.why()};
  }
  natRules_.endOldFlows();
  interfaces_.start();
  if (auto listening = listener_.listen(lm::socketPath); !listening) return listening;
  supervisor_.boot();
  return {};
}

}  // namespace lumen
