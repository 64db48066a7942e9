#include "lumen/ctl/text/Suggestion.h"

#include <algorithm>
#include <cstddef>

namespace lumenctl {

namespace {

// Longer than any word that this program knows; the time that a comparison takes is bounded.
constexpr size_t longestWord = 40;

/// How many characters must be added, left out, replaced or swapped with their neighbour (optimal
/// string alignment).
size_t typingErrors(std::string_view from, std::string_view to) {
  std::vector<std::vector<size_t>> errors(from.size() + 1, std::vector<size_t>(to.size() + 1));
  for (size_t i = 0; i <= from.size(); ++i) {
    for (size_t j = 0; j <= to.size(); ++j) {
      if (i == 0 || j == 0) {
        errors[i][j] = i + j;
        continue;
      }
      const size_t replaced = from[i - 1] == to[j - 1] ? 0 : 1;
      errors[i][j] =
          std::min({errors[i - 1][j] + 1, errors[i][j - 1] + 1, errors[i - 1][j - 1] + replaced});
      if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
        errors[i][j] = std::min(errors[i][j], errors[i - 2][j - 2] + 1);
      }
    }
  }
  return errors[from.size()][to.size()];
}

}  // namespace

std::string likelyMeant(std::string_view word, const std::vector<std::string>& candidates) {
  if (word.size() < 2 || word.size() > longestWord) return {};
  // One error in three characters; more of them make any word of any other.
  size_t fewest = std::max<size_t>(word.size() / 3, 1) + 1;
  std::string best;
  for (const std::string& candidate : candidates) {
    const size_t errors = candidate.starts_with(word) ? 1 : typingErrors(word, candidate);
    if (errors >= fewest) continue;
    fewest = errors;
    best = candidate;
  }
  return best;
}

}  // namespace lumenctl
