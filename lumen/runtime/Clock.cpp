#include "lumen/runtime/Clock.h"

#include <time.h>

#include <chrono>

namespace lm {

Clock::Time SystemClock::now() const {
  timespec time{};
  clock_gettime(CLOCK_BOOTTIME, &time);
  return Time(std::chrono::seconds(time.tv_sec) + std::chrono::floor<std::chrono::milliseconds>(
                                                      std::chrono::nanoseconds(time.tv_nsec)));
}

}  // namespace lm
