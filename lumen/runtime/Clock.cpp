#include "lumen/runtime/Clock.h"

#include <time.h>

namespace lm {

uint64_t SystemClock::now() const {
  timespec time{};
  clock_gettime(CLOCK_BOOTTIME, &time);
  return static_cast<uint64_t>(time.tv_sec) * 1000 + static_cast<uint64_t>(time.tv_nsec) / 1000000;
}

}  // namespace lm
