#include "base/ProgramUsage.h"
#include "core/Confinement.h"
#include "core/Gateway.h"
#include "platform/Keys.h"
#include "platform/Looper.h"

const uint32_t lm::serviceNumber = lm::service::gateway;

namespace {

constexpr ProgramUsage usage(
    "palinode-igd",
    "Usage: palinode-igd [--help | --version]\n"
    "The UPnP Internet gateway of this router. lumend starts it; lumenctl(1) configures it.\n"
    "\n"
    "  --help     show this\n"
    "  --version  show the version\n");

}  // namespace

int main(int argc, char** argv) {
  if (const std::optional<int> status = usage.answer(argc, argv)) return *status;
  lm::Looper looper;
  confineGateway();
  Gateway gateway;
  theGateway = &gateway;
  looper.addHandler(0, gateway);
  gateway.init();
  looper.run();
  return 0;
}
