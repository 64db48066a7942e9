#pragma once

#include <optional>
#include <set>

#include "lumen/runtime/Clock.h"
#include "lumen/services/nat/FlowMarks.h"
#include "lumen/services/nat/SweepPace.h"
#include "lumen/services/system/netfilter/Flows.h"

namespace lumen {

/// Ends UDP flows that do not go where the open ports say. The kernel decides about translation at
/// a flow's first packet only: otherwise a flow through a port that was closed would live as long
/// as packets pass, and a flow that began before its port was opened would never be translated. TCP
/// connections are left alone.
///
/// A port is marked from before it opens until its flows have been swept after it closed, so that
/// the flows of a lumend that was killed are ended by the next one.
///
/// Changes in quick succession share a sweep. The ports of a sweep that failed are swept again with
/// the next one, which the next change or the next lumend starts.
class FlowCleaner : private Flows::Sweeper, private SweepPace::Owner {
 public:
  /// What the cleaner needs to know about the open ports.
  class OpenPorts {
   public:
    virtual ~OpenPorts() = default;
    /// Where UDP packets from `remote` to `external` go now; none when the port is not open to it.
    [[nodiscard]] virtual std::optional<Endpoint> udpClient(const Endpoint& external,
                                                            Ipv4Address remote) const = 0;
    /// Whether it is open to any remote host.
    [[nodiscard]] virtual bool isUdpOpen(const Endpoint& external) const = 0;
  };

  /// All must outlive this.
  FlowCleaner(Flows& flows, const OpenPorts& ports, const FlowMarks& marks, const lm::Clock& clock);
  FlowCleaner(const FlowCleaner&) = delete;
  FlowCleaner& operator=(const FlowCleaner&) = delete;

  /// Schedules a sweep of the ports that an earlier lumend had open.
  void resume();

  /// The UDP port `external` is about to be opened; changed() must follow.
  void opens(const Endpoint& external) { marks_.set(external); }

  /// The UDP port `external` was opened, closed or changed. Schedules a sweep of its flows.
  void changed(const Endpoint& external);

  /// Whether no sweep is under way or scheduled.
  [[nodiscard]] bool idle() const { return pace_.idle(); }

 private:
  void sweep() override;
  bool ends(const Flow& flow) override;
  void swept(bool complete) override;

  Flows& flows_;
  const OpenPorts& ports_;
  const FlowMarks& marks_;
  std::set<Endpoint> pending_;  // for the next sweep
  std::set<Endpoint> swept_;    // by the sweep that is under way
  std::set<Endpoint> missed_;   // by a sweep that was not complete; the next one looks at them too
  SweepPace pace_;
};

}  // namespace lumen
