#pragma once

#include <optional>

/// How a program is used: answers `--help` and `--version`, and refuses wrong arguments. The texts
/// must outlive it; no answer needs a platform, a privilege or a file.
class ProgramUsage {
 public:
  static constexpr int statusRefused = 1;
  static constexpr int statusWrongUsage = 2;

  /// `name` as the administrator types it; `usage` is the whole answer to `--help`, with its last
  /// line end.
  constexpr ProgramUsage(const char* name, const char* usage) : name_(name), usage_(usage) {}

  /// For a program that takes no other argument than `--help` or `--version`. None: go on. Else
  /// the status to end with.
  [[nodiscard]] std::optional<int> answer(int argc, const char* const* argv) const;

  /// Each of these writes its text and returns the status to end with: 0, or `statusRefused` when
  /// standard output cannot be written.
  [[nodiscard]] int showHelp() const;
  [[nodiscard]] int showVersion() const;

  /// Writes the usage to standard error. Returns `statusWrongUsage`.
  [[nodiscard]] int refuse() const;

 private:
  [[nodiscard]] int finish(bool written) const;

  const char* name_;
  const char* usage_;
};
