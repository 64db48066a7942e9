#pragma once

#include <string>
#include <vector>

namespace lumenctl {

/// Something that keeps the gateway from doing its work, in words for whoever runs the router.
struct Finding {
  std::string id;    ///< for programs: the same whatever the rest says
  std::string what;  ///< what is wrong
  std::string why;   ///< what comes of it
  std::string mend;  ///< the command, or else the deed, that mends it

  [[nodiscard]] bool operator==(const Finding&) const = default;
};

using Findings = std::vector<Finding>;

}  // namespace lumenctl
