#pragma once

#include <string>
#include <vector>

namespace lumenctl {

/// Something that keeps the gateway from doing its work, in words for the administrator.
struct Finding {
  std::string id;      ///< for programs; stays the same when the texts change
  std::string what;    ///< what is wrong
  std::string why;     ///< its effect
  std::string remedy;  ///< the command that fixes it, or else what to do

  [[nodiscard]] bool operator==(const Finding&) const = default;
};

using Findings = std::vector<Finding>;

}  // namespace lumenctl
