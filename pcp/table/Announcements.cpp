#include "pcp/table/Announcements.h"

#include <algorithm>

namespace pcp {

namespace {

using namespace std::chrono_literals;

constexpr unsigned times = 10;
constexpr std::chrono::milliseconds firstPause = 250ms;

}  // namespace

void Announcements::begin() {
  left_ = times;
  pause_ = firstPause;
  next_ = clock_.now();
}

std::optional<std::chrono::milliseconds> Announcements::untilNext() const {
  if (left_ == 0) return std::nullopt;
  return std::max(next_ - clock_.now(), 0ms);
}

bool Announcements::take() {
  if (left_ == 0 || clock_.now() < next_) return false;
  --left_;
  next_ = clock_.now() + pause_;
  pause_ *= 2;
  return true;
}

}  // namespace pcp
