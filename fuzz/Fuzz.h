#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

/// A fuzz target: does its work with one input, which may be anything, and returns 0. What one
/// input leaves behind must not matter to the next.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

/// Ends the process, so that the input is kept, when `promise` does not hold.
inline void require(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

inline std::string_view text(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Takes what is before `end`, and `end`, from the front of `text`; all of it without an `end`.
inline std::string_view takeUpTo(std::string_view& text, std::string_view end) {
  const size_t at = text.find(end);
  const std::string_view part = text.substr(0, at);
  text.remove_prefix(at == std::string_view::npos ? text.size() : at + end.size());
  return part;
}

}  // namespace fuzz
