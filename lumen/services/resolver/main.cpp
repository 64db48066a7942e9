#include <string>
#include <vector>

#include "base/ProgramUsage.h"
#include "lumen/runtime/EventLoop.h"
#include "lumen/services/resolver/Confinement.h"
#include "lumen/services/resolver/Resolver.h"
#include "platform/Keys.h"
#include "platform/Looper.h"

const uint32_t lm::serviceNumber = lm::service::resolver;

namespace {

constexpr ProgramUsage usage(
    "lumen-resolver",
    "Usage: lumen-resolver [--help | --version]\n"
    "Looks up host names for the UPnP gateway. lumend starts it when a name is first needed.\n"
    "\n"
    "  --help     show this\n"
    "  --version  show the version\n");

}  // namespace

int main(int argc, char** argv) {
  if (const std::optional<int> status = usage.answer(argc, argv)) return *status;
  lm::Looper looper;
  // The second is the system's; the first is for a router whose LAN has its own name servers.
  const std::vector<std::string> configurations = {"/lumen/etc/resolv.conf", "/etc/resolv.conf"};
  lumen::confineResolver(configurations);
  lumen::Resolver resolver(lm::currentClock(), configurations);
  looper.addHandler(0, resolver);
  looper.run();
  return 0;
}
