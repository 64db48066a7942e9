#include <cstdint>
#include <optional>
#include <string>

#include "base/ProgramUsage.h"
#include "lumen/runtime/EventLoop.h"
#include "lumen/web/Confinement.h"
#include "lumen/web/Web.h"
#include "platform/Looper.h"
#include "platform/wire/Web.h"

const uint32_t lm::serviceNumber = lm::service::web;

namespace {

constexpr ProgramUsage usage(
    "lumen-web",
    "Usage: lumen-web [--help | --version]\n"
    "The status page of the UPnP gateway. lumend starts it; lumenctl web switches it on.\n"
    "\n"
    "  --help     show this\n"
    "  --version  show the version\n");

constexpr uint16_t firstFreePort = 1024;

}  // namespace

int main(int argc, char** argv) {
  if (const std::optional<int> status = usage.answer(argc, argv)) return *status;
  lm::Looper looper;
  const std::string store = "/lumen/store/web";
  lumen::web::Web web(store, lm::currentClock());
  const bool bindsLowPorts = lumen::web::limitCapability(web.settings().port < firstFreePort);
  lumen::web::confineWeb(store);
  looper.addHandler(0, web);
  web.init(bindsLowPorts);
  looper.run();
  return 0;
}
