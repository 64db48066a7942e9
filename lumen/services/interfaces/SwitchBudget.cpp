#include "lumen/services/interfaces/SwitchBudget.h"

namespace lumen {

namespace {

bool isOver(const std::optional<lm::Clock::Time>& begin, lm::Clock::Time now) {
  return !begin || now - *begin >= SwitchBudget::period;
}

}  // namespace

bool SwitchBudget::take(lm::Clock::Time now) {
  if (!isOver(taken_[oldest_], now)) return false;
  taken_[oldest_] = now;
  oldest_ = (oldest_ + 1) % most;
  return true;
}

bool SwitchBudget::takeLogLine(lm::Clock::Time now) {
  if (!isOver(logged_, now)) return false;
  logged_ = now;
  return true;
}

}  // namespace lumen
