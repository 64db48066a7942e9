#include "lumen/services/nat/PortPicker.h"

#include <sys/random.h>

#include <algorithm>
#include <numeric>
#include <vector>

namespace lumen {

namespace {

constexpr int mostGuesses = 32;

uint32_t kernelsRandomNumber() {
  uint32_t number = 0;
  // Without one, the order of the ports is the same in each run: none of them opens more for that.
  const ssize_t got = getrandom(&number, sizeof number, GRND_NONBLOCK);
  return got == sizeof number ? number : 0;
}

/// The same ports in rising order, in ranges that do not overlap.
std::vector<PortRanges::Range> withoutOverlaps(std::vector<PortRanges::Range> ranges) {
  std::ranges::sort(ranges, {}, &PortRanges::Range::first);
  std::vector<PortRanges::Range> result;
  for (const PortRanges::Range& range : ranges) {
    if (!result.empty() && range.first <= result.back().last) {
      result.back().last = std::max(result.back().last, range.last);
    } else {
      result.push_back(range);
    }
  }
  return result;
}

uint32_t sizeOf(const PortRanges::Range& range) { return uint32_t{range.last} - range.first + 1; }

/// The port with this number, from 0 on.
uint16_t portAt(const std::vector<PortRanges::Range>& ranges, uint32_t number) {
  auto range = ranges.begin();
  while (number >= sizeOf(*range)) number -= sizeOf(*range++);
  return static_cast<uint16_t>(range->first + number);
}

}  // namespace

PortPicker::PortPicker() : PortPicker(kernelsRandomNumber()) {}

// Where hardly any port is free, steps of a length that has no factor in common with the number of
// ports reach each once. Their end is less even than that of single guesses.
std::optional<uint16_t> PortPicker::pick(const PortRanges& ports,
                                         const std::function<bool(uint16_t)>& isFree) {
  const std::vector<PortRanges::Range> ranges = withoutOverlaps(ports.ranges());
  uint32_t count = 0;
  for (const PortRanges::Range& range : ranges) count += sizeOf(range);
  if (count == 0) return std::nullopt;
  std::uniform_int_distribution<uint32_t> any(0, count - 1);
  for (int guess = 0; guess < mostGuesses; ++guess) {
    const uint16_t port = portAt(ranges, any(random_));
    if (isFree(port)) return port;
  }
  uint32_t number = any(random_);
  uint32_t step = any(random_);
  while (std::gcd(step, count) != 1) step = any(random_);
  for (uint32_t asked = 0; asked < count; ++asked) {
    const uint16_t port = portAt(ranges, number);
    if (isFree(port)) return port;
    number = (number + step) % count;
  }
  return std::nullopt;
}

}  // namespace lumen
