#include "lumen/ctl/status/Traffic.h"

#include <utility>

namespace lumenctl {

namespace {

constexpr size_t maxRates = 60;

uint64_t perSecond(uint64_t bytes, std::chrono::duration<double> time) {
  return static_cast<uint64_t>(static_cast<double>(bytes) / time.count());
}

}  // namespace

void Traffic::add(const Counters& counters, Time now) {
  const std::optional<Reading> before = std::exchange(last_, Reading{counters, now});
  if (!before || now <= before->time) return;
  if (counters.bytesReceived < before->counters.bytesReceived ||
      counters.bytesSent < before->counters.bytesSent) {
    return;
  }
  const Time::duration time = now - before->time;
  rates_.push_back({perSecond(counters.bytesReceived - before->counters.bytesReceived, time),
                    perSecond(counters.bytesSent - before->counters.bytesSent, time)});
  if (rates_.size() > maxRates) rates_.pop_front();
}

}  // namespace lumenctl
