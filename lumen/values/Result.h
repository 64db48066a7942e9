#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace lumen {

/// Why something could not be done, in words for an administrator.
struct Failure {
  std::string text;
};

/// A value, or why there is none.
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}
  Result(Failure failure) : content_(std::in_place_index<1>, std::move(failure)) {}

  [[nodiscard]] bool ok() const { return content_.index() == 0; }
  explicit operator bool() const { return ok(); }

  /// The value. REQUIRES: ok().
  [[nodiscard]] T& operator*() { return *std::get_if<0>(&content_); }
  [[nodiscard]] const T& operator*() const { return *std::get_if<0>(&content_); }
  [[nodiscard]] T* operator->() { return std::get_if<0>(&content_); }
  [[nodiscard]] const T* operator->() const { return std::get_if<0>(&content_); }

  /// Why there is no value. REQUIRES: not ok().
  [[nodiscard]] const Failure& failure() const { return *std::get_if<1>(&content_); }
  [[nodiscard]] const std::string& why() const { return failure().text; }

 private:
  std::variant<T, Failure> content_;
};

/// Success, or why not.
template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Failure failure) : failure_(std::move(failure)) {}

  [[nodiscard]] bool ok() const { return !failure_; }
  explicit operator bool() const { return ok(); }

  /// REQUIRES: not ok().
  [[nodiscard]] const Failure& failure() const { return *failure_; }
  [[nodiscard]] const std::string& why() const { return failure_->text; }

 private:
  std::optional<Failure> failure_;
};

}  // namespace lumen
