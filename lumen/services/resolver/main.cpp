#include "lumen/runtime/EventLoop.h"
#include "lumen/services/resolver/Resolver.h"
#include "platform/Looper.h"

const uint32_t lm::serviceNumber = 14;

int main() {
  lm::Looper looper;
  // The second is everybody's; the first is for a router whose LAN has name servers of its own.
  lumen::Resolver resolver(lm::currentClock(), {"/lumen/etc/resolv.conf", "/etc/resolv.conf"});
  looper.addHandler(0, resolver);
  looper.run();
  return 0;
}
