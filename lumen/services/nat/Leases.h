#pragma once

#include <cstdint>
#include <set>
#include <utility>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "platform/Timer.h"

namespace lumen {

/// When rules with a lease end. One timer waits for the nearest end, however many there are. Needs
/// the event loop.
class Leases {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    /// The leases of these rules, of which there is at least one, are over and forgotten here. May
    /// call this back.
    virtual void leasesEnded(const std::vector<uint32_t>& ids) = 0;
  };

  /// Both must outlive this.
  Leases(Owner& owner, const lm::Clock& clock) : owner_(owner), clock_(clock) {}
  Leases(const Leases&) = delete;
  Leases& operator=(const Leases&) = delete;

  /// A time that has passed is told soon, never from inside this call.
  void add(uint32_t id, lm::Clock::Time until);
  /// `until` is what add() was given; does nothing when it is over already.
  void remove(uint32_t id, lm::Clock::Time until);

 private:
  void watchNearest();
  void end();

  Owner& owner_;
  const lm::Clock& clock_;
  std::set<std::pair<lm::Clock::Time, uint32_t>> ends_;
  lm::Clock::Time awaited_;  // what the timer waits for, while it is pending
  lm::Timer timer_;
};

}  // namespace lumen
