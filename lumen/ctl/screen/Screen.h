#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace lumenctl {

/// A terminal as one picture, which is drawn again and again. It is as it was before when this
/// ends.
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
  /// Waits for `limit`, or until it has another size, or the user wants to see no more.
  [[nodiscard]] virtual Event wait(std::chrono::milliseconds limit) = 0;
};

}  // namespace lumenctl
