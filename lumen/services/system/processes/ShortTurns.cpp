#include "lumen/services/system/processes/ShortTurns.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

namespace lumen {

namespace {

// sched_attr of linux/sched/types.h in its first version, which no C library before glibc 2.41 can
// include beside sched.h.
struct SchedulerAttributes {
  uint32_t size;
  uint32_t policy;
  uint64_t flags;
  int32_t nice;
  uint32_t priority;
  uint64_t runtime;  // nanoseconds, as the next two
  uint64_t deadline;
  uint64_t period;
};
static_assert(sizeof(SchedulerAttributes) == 48);

}  // namespace

void takeShortTurns() {
  SchedulerAttributes attributes = {};
  attributes.size = sizeof attributes;
  attributes.policy = SCHED_OTHER;
  attributes.nice = getpriority(PRIO_PROCESS, 0);
  attributes.runtime = static_cast<uint64_t>(std::chrono::nanoseconds(shortTurn).count());
  (void)syscall(SYS_sched_setattr, 0, &attributes, 0);
}

}  // namespace lumen
