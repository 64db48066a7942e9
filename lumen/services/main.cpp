#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/runtime/EventLoop.h"
#include "lumen/runtime/Log.h"
#include "lumen/services/Confinement.h"
#include "lumen/services/Options.h"
#include "lumen/services/Platform.h"
#include "lumen/services/supervisor/ServiceFolder.h"
#include "lumen/services/system/processes/EndSignals.h"
#include "lumen/services/system/processes/LinuxProcesses.h"
#include "lumen/services/system/processes/LockFile.h"
#include "lumen/services/system/processes/PrivateRoot.h"
#include "lumen/services/system/processes/Privileges.h"
#include "lumen/services/system/processes/ServiceManager.h"
#include "lumen/services/system/processes/ShortTurns.h"
#include "lumen/values/KernelVersion.h"
#include "platform/Keys.h"

namespace {

using lumen::Platform;
using lumen::ServiceDefinition;
namespace path = lumen::path;

// Where a package keeps the ruleset, which its unit binds to path::natRuleset.
constexpr const char* packagedRuleset = "/etc/lumen/nat-ruleset.nft";

constexpr unsigned forAll = 0755;
constexpr unsigned forOwner = 0700;

void exitOnError(const lumen::Result<void>& done) {
  if (!done) lm::fatal("lumend: ", done.why());
}

void checkKernel() {
  utsname system = {};
  uname(&system);
  const auto version = lumen::KernelVersion::parse(system.release);
  if (version && *version >= lumen::oldestKernel) return;
  lm::fatal("lumend: needs Linux ", lumen::oldestKernel.text(),
            " for a NAT table that no other program can change; this is ", system.release);
}

// To be called before any file is made: outside its unit a packaged lumend sees an empty /lumen,
// and removing the package would not remove what it made there.
void checkConfiguration() {
  if (access(path::natRuleset.c_str(), F_OK) == 0) return;
  const int error = errno;
  const bool packaged = error == ENOENT && access(packagedRuleset, F_OK) == 0;
  lm::fatal("lumend: ", path::natRuleset, ": ", strerror(error),
            packaged ? "; to start the lumend of the package: systemctl start lumend" : "");
}

// Also opens the standard descriptors that are missing: the first files opened would get their
// numbers.
void closeInheritedDescriptors() {
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
  exitOnError(lumen::keepCapabilities(capabilities));
}

std::vector<ServiceDefinition> readServices() {
  const std::set<uint32_t> own = {lm::service::interfaces, lm::service::identity,
                                  lm::service::history};
  return lumen::readServiceFolder(path::serviceFolder, lumen::SystemUsers(), own);
}

// Does what an installation would do, for a directory without one.
void prepareRoot(const std::vector<ServiceDefinition>& services, lumen::LinuxProcesses& processes) {
  exitOnError(lumen::makeDirectory(path::runFolder, 0, 0, forAll));
  exitOnError(lumen::makeDirectory(path::storeFolder, 0, 0, forAll));
  for (const ServiceDefinition& service : services) {
    for (const std::string& store : service.stores) {
      exitOnError(lumen::makeDirectory(path::store(store), service.user, service.group, forOwner));
    }
    const lumen::Result<void> opened = processes.open(service.executable);
    if (!opened) lm::logLine(service.name, ": ", opened.why());
  }
}

void reportMissingStores(const std::vector<ServiceDefinition>& services) {
  for (const ServiceDefinition& service : services) {
    for (const std::string& store : service.stores) {
      struct stat info = {};
      const std::string directory = path::store(store);
      if (stat(directory.c_str(), &info) == 0 && info.st_uid == service.user) continue;
      lm::logLine(service.name, ": ", directory, " is missing or belongs to another user");
    }
  }
}

lm::Fd acquireInstanceLock() {
  lm::Fd lock = lumen::openLockFile(path::lock);
  if (!lock.valid()) lm::fatal("lumend: ", path::lock, ": ", strerror(errno));
  if (!lumen::takeLock(lock.get())) {
    lm::fatal("lumend: another lumend is running, process ", lumen::holderOf(lock.get()));
  }
  return lock;
}

}  // namespace

int main(int argc, char** argv) {
  const lumen::Options options = lumen::readOptions(argc, argv);
  if (options.status >= 0) return options.status;
  const bool privateRoot = !options.root.empty();
  checkKernel();
  exitOnError(lumen::checkPrivileges(privateRoot ? lumen::capabilitiesForPrivateRoot()
                                                 : lumen::neededCapabilities()));
  closeInheritedDescriptors();
  umask(077);
  if (privateRoot) {
    exitOnError(lumen::enterPrivateRoot(options.root));
    keepOnly(lumen::capabilitiesForPrivateRoot());
  } else {
    keepOnly(lumen::neededCapabilities());
  }

  checkConfiguration();

  const lm::SystemClock clock;
  lm::EventLoop loop(clock);
  lumen::EndSignals signals;
  lumen::LinuxProcesses processes;
  const std::vector<ServiceDefinition> services = readServices();
  if (privateRoot) {
    prepareRoot(services, processes);
    keepOnly(lumen::neededCapabilities());
  }
  lumen::takeShortTurns();
  lumen::confinePlatform();
  for (const std::string& store : Platform::stores()) {
    exitOnError(lumen::makeDirectory(path::store(store), 0, 0, forOwner));
  }
  exitOnError(lumen::makeDirectory(path::flowMarks, 0, 0, forOwner));
  reportMissingStores(services);
  const lm::Fd lock = acquireInstanceLock();

  Platform platform(loop, processes, services);
  signals.watch<&Platform::shutDown>(platform);
  exitOnError(platform.start());
  lumen::ServiceManager manager = lumen::ServiceManager::ofThisProcess();
  manager.ready();
  while (!platform.isShutDown()) loop.turn(std::nullopt);
  return 0;
}
