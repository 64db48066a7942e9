#include "lumen/ctl/status/Traffic.h"

#include <utility>

namespace lumenctl {

namespace {

constexpr size_t mostRates = 60;

uint64_t perSecond(uint64_t bytes, uint64_t milliseconds) {
  return static_cast<uint64_t>(static_cast<double>(bytes) * 1000 /
                               static_cast<double>(milliseconds));
}

}  // namespace

void Traffic::add(const Counters& counters, uint64_t now) {
  const std::optional<Reading> before = std::exchange(last_, Reading{counters, now});
  if (!before || now <= before->time) return;
  if (counters.bytesReceived < before->counters.bytesReceived ||
      counters.bytesSent < before->counters.bytesSent) {
    return;
  }
  const uint64_t time = now - before->time;
  rates_.push_back({perSecond(counters.bytesReceived - before->counters.bytesReceived, time),
                    perSecond(counters.bytesSent - before->counters.bytesSent, time)});
  if (rates_.size() > mostRates) rates_.pop_front();
}

}  // namespace lumenctl
