#include "core/Gateway.h"
#include "platform/Looper.h"

const uint32_t lm::serviceNumber = 40;

int main() {
  lm::Looper looper;
  Gateway gateway;
  theGateway = &gateway;
  looper.addHandler(0, gateway);
  gateway.init();
  looper.run();
  return 0;
}
