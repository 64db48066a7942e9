#include <optional>
#include <string>

#include "base/ProgramUsage.h"
#include "lumen/runtime/EventLoop.h"
#include "pcp/server/Confinement.h"
#include "pcp/server/Service.h"
#include "platform/Looper.h"
#include "platform/wire/Pcp.h"

const uint32_t lm::serviceNumber = lm::service::pcp;

namespace {

constexpr ProgramUsage usage("palinode-pcp",
                             "Usage: palinode-pcp [--help | --version]\n"
                             "Opens ports for programs on the LAN that ask in NAT-PMP or PCP. "
                             "lumend starts it; lumenctl pcp\n"
                             "switches it on.\n"
                             "\n"
                             "  --help     show this\n"
                             "  --version  show the version\n");

}  // namespace

int main(int argc, char** argv) {
  if (const std::optional<int> status = usage.answer(argc, argv)) return *status;
  lm::Looper looper;
  const std::string store = "/lumen/store/pcp";
  pcp::Service service(store, lm::currentClock());
  pcp::confine(store);
  looper.addHandler(0, service);
  service.init();
  looper.run();
  return 0;
}
