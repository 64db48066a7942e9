#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

/// Determines after each read whether the bytes received are one whole message. The result equals
/// HTTPMessage(bytes).complete, but each byte is scanned only once: the cost of a request does not
/// depend on the number of pieces in which it arrives.
class RequestScanner {
 public:
  /// `received` is everything received; it starts with the bytes of the previous call.
  [[nodiscard]] bool complete(std::string_view received);

  /// The size in bytes of a complete request: its header and, with a CONTENT-LENGTH, its body.
  /// Without one, bytes after the header do not count: they may belong to the next request, and how
  /// many have arrived depends on the pieces.
  [[nodiscard]] size_t size() const { return lineStart_ + length_.value_or(0); }

 private:
  enum class State { startLine, headers, body, never };

  /// Takes the next line if it has arrived completely.
  [[nodiscard]] bool takeLine(std::string_view received);

  State state_ = State::startLine;
  size_t lineStart_ = 0;            ///< start of the line or body being received
  size_t scanned_ = 0;              ///< where to look for the next carriage return
  std::optional<uint32_t> length_;  ///< the first CONTENT-LENGTH
};
