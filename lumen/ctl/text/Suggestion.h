#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lumenctl {

/// The one of `candidates` that was most likely meant by `word`, which is none of them: one that
/// begins with it, or that few typing errors turn into it. Empty when none is likely.
[[nodiscard]] std::string likelyMeant(std::string_view word,
                                      const std::vector<std::string>& candidates);

}  // namespace lumenctl
