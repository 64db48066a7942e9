#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/runtime/EventLoop.h"
#include "lumen/runtime/Log.h"
#include "lumen/services/Options.h"
#include "lumen/services/addresses/AddressTable.h"
#include "lumen/services/broker/Broker.h"
#include "lumen/services/broker/Listener.h"
#include "lumen/services/identity/Identity.h"
#include "lumen/services/interfaces/InterfaceTable.h"
#include "lumen/services/nat/NatMap.h"
#include "lumen/services/nat/NatRules.h"
#include "lumen/services/nat/PolicyBook.h"
#include "lumen/services/supervisor/ServiceFolder.h"
#include "lumen/services/supervisor/Supervisor.h"
#include "lumen/services/system/EndSignals.h"
#include "lumen/services/system/LibNftables.h"
#include "lumen/services/system/LinuxProcesses.h"
#include "lumen/services/system/LockFile.h"
#include "lumen/services/system/NetlinkFlows.h"
#include "lumen/services/system/NetlinkLinks.h"
#include "lumen/services/system/PrivateRoot.h"
#include "lumen/services/system/Privileges.h"
#include "platform/Keys.h"

namespace {

using lumen::ServiceDefinition;

const std::string serviceFolder = "/lumen/etc/services";
const std::string rulesetFile = "/lumen/etc/nat-ruleset.nft";
const std::string policyFile = "/lumen/etc/nat-policy";
const std::string storeFolder = "/lumen/store";
const std::string runFolder = "/lumen/run";
constexpr const char* administrators = "lumen";

// The owned nftables table.
constexpr unsigned kernelMajor = 5;
constexpr unsigned kernelMinor = 12;

constexpr unsigned forAll = 0755;
constexpr unsigned forOwner = 0700;

void demand(const std::string& error) {
  if (!error.empty()) lm::fatal("lumend: ", error);
}

void demand(const char* what, const std::optional<std::string>& error) {
  if (error) lm::fatal("lumend: ", what, ": ", *error);
}

void checkKernel() {
  utsname system = {};
  uname(&system);
  if (lumen::kernelIsAtLeast(system.release, kernelMajor, kernelMinor)) return;
  lm::fatal("lumend: needs Linux ", kernelMajor, ".", kernelMinor,
            " for a NAT table that nobody else can change; this is ", system.release);
}

// What the starter left open is none of ours; and a missing standard descriptor would become one of
// the first files that are opened.
void tidyDescriptors() {
  close_range(STDERR_FILENO + 1, ~0U, 0);
  while (true) {
    lm::Fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!null.valid()) lm::fatal("lumend: /dev/null: ", strerror(errno));
    if (null.get() > STDERR_FILENO) return;
    const int kept = null.release();
    fcntl(kept, F_SETFD, 0);
  }
}

void keepOnly(std::span<const unsigned> capabilities) {
  if (!lumen::keepCapabilities(capabilities)) {
    lm::fatal("lumend: cannot give up its privileges: ", strerror(errno));
  }
}

std::vector<ServiceDefinition> readServices() {
  const std::set<uint32_t> own = {lm::service::interfaces, lm::service::identity};
  return lumen::readServiceFolder(serviceFolder, lumen::SystemUsers(), own);
}

// What an installation does, for a directory that has not seen one.
void prepareRoot(const std::vector<ServiceDefinition>& services, lumen::LinuxProcesses& processes) {
  demand(lumen::makeDirectory(runFolder, 0, 0, forAll));
  demand(lumen::makeDirectory(storeFolder, 0, 0, forAll));
  for (const ServiceDefinition& service : services) {
    for (const std::string& store : service.stores) {
      demand(
          lumen::makeDirectory(storeFolder + "/" + store, service.user, service.group, forOwner));
    }
    processes.open(service.executable);
  }
}

void reportMissingStores(const std::vector<ServiceDefinition>& services) {
  for (const ServiceDefinition& service : services) {
    for (const std::string& store : service.stores) {
      struct stat info = {};
      const std::string path = storeFolder + "/" + store;
      if (stat(path.c_str(), &info) == 0 && info.st_uid == service.user) continue;
      lm::logLine(service.name, ": ", path, " is missing or belongs to another user");
    }
  }
}

lm::Fd becomeTheOnlyOne() {
  const std::string path = runFolder + "/lumend.lock";
  lm::Fd lock = lumen::openLockFile(path);
  if (!lock.valid()) lm::fatal("lumend: ", path, ": ", strerror(errno));
  if (!lumen::takeLock(lock.get())) {
    lm::fatal("lumend: runs already, process ", lumen::holderOf(lock.get()));
  }
  return lock;
}

std::optional<gid_t> administratorGroup() {
  const group* const found = getgrnam(administrators);
  if (found == nullptr) return std::nullopt;
  return found->gr_gid;
}

std::string ownStore(const std::string& name) {
  const std::string path = storeFolder + "/" + name;
  demand(lumen::makeDirectory(path, 0, 0, forOwner));
  return path;
}

void serve(lm::EventLoop& loop, lumen::EndSignals& signals, lumen::LinuxProcesses& processes,
           std::vector<ServiceDefinition> services) {
  const lm::Fd lock = becomeTheOnlyOne();
  lumen::Supervisor supervisor(std::move(services), processes, loop.clock(), runFolder);
  lumen::Broker broker(supervisor, loop.clock(), administratorGroup());
  supervisor.setObserver(broker);

  lumen::Identity identity(ownStore("identity"));
  broker.addLocal(lm::service::identity, 0, identity);

  lumen::NetlinkLinks links;
  lumen::AddressTable addresses(broker);
  lumen::InterfaceTable interfaces(links, addresses, broker, ownStore("interfaces"));
  broker.addLocal(lm::service::interfaces, lm::handler::interfaces, interfaces);
  broker.addLocal(lm::service::interfaces, lm::handler::addresses, addresses);
  interfaces.start();

  lumen::LibNftables nftables;
  lumen::NatMap map(nftables);
  demand("NAT table", map.open(rulesetFile));
  lumen::NetlinkFlows flows;
  lumen::PolicyBook policies(policyFile, ownStore("nat"));
  demand("NAT policy", policies.load());
  lumen::NatRules rules(map, flows, addresses, policies, loop.clock());
  broker.addLocal(lm::service::interfaces, lm::handler::natRules, rules);

  lumen::Listener listener(broker);
  if (!listener.listen(runFolder + "/lumen.sock")) std::exit(1);
  signals.watch<&lumen::Supervisor::shutDown>(supervisor);
  supervisor.boot();
  while (!supervisor.isShutDown()) loop.turn(std::nullopt);
}

}  // namespace

int main(int argc, char** argv) {
  const lumen::Options options = lumen::readOptions(argc, argv);
  if (options.status >= 0) return options.status;
  const bool privateRoot = !options.root.empty();
  checkKernel();
  demand(lumen::missingPrivileges(privateRoot ? lumen::capabilitiesForPrivateRoot()
                                              : lumen::neededCapabilities()));
  tidyDescriptors();
  umask(077);
  if (privateRoot) {
    demand(lumen::enterPrivateRoot(options.root));
    keepOnly(lumen::capabilitiesForPrivateRoot());
  } else {
    keepOnly(lumen::neededCapabilities());
  }

  const lm::SystemClock clock;
  lm::EventLoop loop(clock);
  lumen::EndSignals signals;
  lumen::LinuxProcesses processes;
  std::vector<ServiceDefinition> services = readServices();
  if (privateRoot) {
    prepareRoot(services, processes);
    keepOnly(lumen::neededCapabilities());
  }
  reportMissingStores(services);
  serve(loop, signals, processes, std::move(services));
  return 0;
}
