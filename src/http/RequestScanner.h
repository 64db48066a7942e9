#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

/// Tells after each read whether the bytes received so far are one whole message, as
/// HTTPMessage(bytes).complete does, but looks at each byte once: the time for a request does not
/// depend on the number of pieces that it comes in.
class RequestScanner {
 public:
  /// `received` is all that was received so far; it starts with what it was at the last call.
  [[nodiscard]] bool complete(std::string_view received);

  /// The bytes of a request that is complete: its header and, when it has a CONTENT-LENGTH, its
  /// body. Without one, what was received after the header is not counted: it may belong to the
  /// next request, and how much of it is there depends on the pieces.
  [[nodiscard]] size_t size() const { return lineStart_ + length_.value_or(0); }

 private:
  enum class State { startLine, headers, body, never };

  /// Takes the next line if all of it is there.
  [[nodiscard]] bool takeLine(std::string_view received);

  State state_ = State::startLine;
  size_t lineStart_ = 0;            ///< start of the line, or body, that is being received
  size_t scanned_ = 0;              ///< where to look for the next carriage return
  std::optional<uint32_t> length_;  ///< the first CONTENT-LENGTH
};
