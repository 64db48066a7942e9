#include "upnp/Subscription.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include "base/Text.h"
#include "upnp/Service.h"

void Subscription::grant(uint32_t time) { timer_.start<&Subscription::timeout>(*this, time * 100); }

void Subscription::delayInitialEvent() {
  initialDelay_.start<&Subscription::initialDelayOver>(*this, initialEventDelay);
}

uint32_t Subscription::takeSeq() {
  const uint32_t taken = seq++;
  if (seq == 0) seq = 1;
  return taken;
}

void Subscription::skipSeq() {
  if (initialEvent >= 0) {
    ++skipped_;
  } else {
    (void)takeSeq();
  }
}

void Subscription::endInitialEvent() {
  initialEvent = -1;
  for (; skipped_ > 0; --skipped_) (void)takeSeq();
}

void Subscription::timeout() { service.expireSubscription(sid); }

void Subscription::initialDelayOver() { service.resumeEvents(sid); }

uint32_t grantedTime(const std::string& timeout) {
  constexpr std::string_view unit = "Second-";
  uint32_t requested = 0;
  if (timeout.starts_with(unit)) {
    const std::string_view rest = std::string_view(timeout).substr(unit.size());
    requested = rest == "infinite" ? std::numeric_limits<uint32_t>::max() : strtouint(rest);
  }
  return std::clamp(requested, Subscription::shortestTime, Subscription::longestTime);
}
