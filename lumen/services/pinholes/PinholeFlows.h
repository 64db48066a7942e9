#pragma once

#include <cstdint>
#include <optional>

#include "lumen/runtime/Clock.h"
#include "lumen/services/nat/SweepPace.h"
#include "lumen/services/system/netfilter/Ipv6Flows.h"

namespace lumen {

/// Ends the UDP flows that came through a pinhole and that none admits any more: the firewall
/// accepts what has their label for as long as packets pass. TCP connections are left alone.
///
/// The label tells them from all others, so that a lumend ends those of one that was killed too.
class PinholeFlows : private Ipv6Flows::Sweeper, private SweepPace::Owner {
 public:
  /// The pinholes that there are now.
  class Open {
   public:
    virtual ~Open() = default;
    /// Whether one lets the first packet of `flow` through.
    [[nodiscard]] virtual bool admits(const Ipv6Flow& flow) const = 0;
  };

  /// All must outlive this.
  PinholeFlows(Ipv6Flows& flows, const Open& open, const lm::Clock& clock)
      : flows_(flows), open_(open), pace_(*this, clock) {}
  PinholeFlows(const PinholeFlows&) = delete;
  PinholeFlows& operator=(const PinholeFlows&) = delete;

  /// The connection label of pinholes is known; none: it has no number, and flows are left alone.
  /// Schedules a sweep, for what an earlier lumend has left.
  void begin(std::optional<uint32_t> label);

  /// Less is admitted than before. Schedules a sweep, which also ends what an earlier one that
  /// failed has left.
  void narrowed();

  /// Whether no sweep is under way or scheduled.
  [[nodiscard]] bool idle() const { return pace_.idle(); }

 private:
  void sweep() override;
  bool ends(const Ipv6Flow& flow) override { return !open_.admits(flow); }
  void swept(bool /*complete*/) override { pace_.over(); }

  Ipv6Flows& flows_;
  const Open& open_;
  std::optional<uint32_t> label_;
  SweepPace pace_;
};

}  // namespace lumen
