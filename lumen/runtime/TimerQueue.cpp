#include "lumen/runtime/TimerQueue.h"

namespace lm {

void TimerQueue::add(Timer timer, Clock::Time due) {
  remove(timer);
  const Place place{due, added_++};
  byPlace_.emplace(place, timer);
  byTimer_.emplace(timer, place);
}

void TimerQueue::remove(Timer timer) {
  auto found = byTimer_.find(timer);
  if (found == byTimer_.end()) return;
  byPlace_.erase(found->second);
  byTimer_.erase(found);
}

std::optional<Clock::Time> TimerQueue::nextDue() const {
  if (byPlace_.empty()) return std::nullopt;
  return byPlace_.begin()->first.first;
}

std::optional<TimerQueue::Timer> TimerQueue::takeDue(Clock::Time now, uint64_t added) {
  if (byPlace_.empty()) return std::nullopt;
  const auto& [place, timer] = *byPlace_.begin();
  if (place.first > now || place.second >= added) return std::nullopt;
  const Timer taken = timer;
  remove(taken);
  return taken;
}

}  // namespace lm
