#include "lumen/services/nat/Leases.h"

#include <algorithm>
#include <chrono>

#include "lumen/runtime/Time.h"

namespace lumen {

namespace {

// What a timer counts in ends before the longest lease.
constexpr std::chrono::milliseconds longestWait = std::chrono::hours(24);

}  // namespace

void Leases::add(uint32_t id, lm::Clock::Time until) {
  ends_.emplace(until, id);
  watchNearest();
}

void Leases::remove(uint32_t id, lm::Clock::Time until) {
  ends_.erase({until, id});
  watchNearest();
}

void Leases::watchNearest() {
  if (ends_.empty()) return timer_.stop();
  const lm::Clock::Time nearest = ends_.begin()->first;
  if (timer_.pending() && awaited_ == nearest) return;
  awaited_ = nearest;
  const lm::Clock::Time now = clock_.now();
  const std::chrono::milliseconds wait = std::max(nearest, now) - now;
  timer_.start<&Leases::end>(*this, timerDelay(std::min(wait, longestWait)));
}

void Leases::end() {
  std::vector<uint32_t> over;
  const lm::Clock::Time now = clock_.now();
  while (!ends_.empty() && ends_.begin()->first <= now) {
    over.push_back(ends_.begin()->second);
    ends_.erase(ends_.begin());
  }
  if (!over.empty()) owner_.leasesEnded(over);
  watchNearest();
}

}  // namespace lumen
