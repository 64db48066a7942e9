#pragma once

#include <cstddef>
#include <map>

#include "lumen/runtime/Clock.h"
#include "pcp/codec/IpAddress.h"

namespace pcp {

/// Bounds how often each host is answered, so that one that floods the router costs the others next
/// to nothing. A host may open all its ports at once, and then ask as often in each second.
class AnswerLimit {
 public:
  static constexpr unsigned burst = 128;
  static constexpr unsigned perSecond = 64;
  /// The most hosts that are remembered. Beyond it, the one that has been silent for longest is
  /// forgotten.
  static constexpr size_t mostHosts = 1024;

  /// `clock` must outlive this.
  explicit AnswerLimit(const lm::Clock& clock) : clock_(clock) {}

  /// Whether `host` may be answered now; counts the answer.
  [[nodiscard]] bool admits(const IpAddress& host);

  [[nodiscard]] size_t hosts() const { return hosts_.size(); }

 private:
  struct Host {
    lm::Clock::Time seen;
    double answers = burst;  // that it may still have
  };

  void makeRoom();

  const lm::Clock& clock_;
  std::map<IpAddress, Host> hosts_;
};

}  // namespace pcp
