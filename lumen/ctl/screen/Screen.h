#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace lumenctl {

/// A terminal that is redrawn as a whole. Its previous content comes back when this ends.
class Screen {
 public:
  struct Size {
    size_t width = 0;
    size_t height = 0;
  };
  enum class Event { timeOver, resized, end };

  virtual ~Screen() = default;

  /// In characters.
  [[nodiscard]] virtual Size size() = 0;
  /// Whether it shows more than ASCII.
  [[nodiscard]] virtual bool showsUtf8() = 0;
  /// Shows these lines, which fit, instead of what was shown before.
  virtual void draw(const std::vector<std::string>& lines) = 0;
  /// Waits for `limit`, or until it has another size, or the user quits.
  [[nodiscard]] virtual Event wait(std::chrono::milliseconds limit) = 0;
};

}  // namespace lumenctl
