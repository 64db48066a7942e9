#include "lumen/services/nat/SweepPace.h"

#include <algorithm>
#include <chrono>

#include "lumen/runtime/Time.h"

namespace lumen {

namespace {

// Even when a sweep costs nothing, there are at most ten a second.
constexpr std::chrono::milliseconds leastRest(100);

// A sweep of 20 ms is followed by a rest of 180 ms.
constexpr int restPerSweep = 9;

}  // namespace

void SweepPace::request() {
  wanted_ = true;
  if (!sweeping_ && !timer_.pending()) schedule();
}

void SweepPace::over() {
  sweeping_ = false;
  const lm::Clock::Time now = clock_.now();
  rest_ = now + std::max(leastRest, restPerSweep * (now - began_));
  if (wanted_) schedule();
}

void SweepPace::schedule() {
  const lm::Clock::Time now = clock_.now();
  timer_.start<&SweepPace::begin>(*this, timerDelay(std::max(rest_, now) - now));
}

void SweepPace::begin() {
  wanted_ = false;
  sweeping_ = true;
  began_ = clock_.now();
  owner_.sweep();
}

}  // namespace lumen
