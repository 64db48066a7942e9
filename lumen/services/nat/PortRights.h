#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "lumen/runtime/Clock.h"
#include "lumen/services/LocalHandler.h"
#include "lumen/values/Result.h"

namespace lumen {

/// What the file of a caller's service grants it: how many rules or pinholes, and for how long. An
/// administrator may have all of it. A failure says what the file lacks.
class PortRights {
 public:
  /// `caller` must outlive this.
  explicit PortRights(const Caller& caller) : caller_(caller) {}

  [[nodiscard]] Result<void> toOpenPorts() const;
  /// None: no end.
  [[nodiscard]] Result<void> toLease(std::optional<lm::Clock::Time::duration> lease) const;
  /// To one more of `what`, "rules", beside the `count` that its service has.
  [[nodiscard]] Result<void> toOneMore(const std::string& what, size_t count) const;

 private:
  const Caller& caller_;
};

}  // namespace lumen
