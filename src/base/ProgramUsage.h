#pragma once

#include <optional>

/// A program's `--help` and `--version`, and its refusal of wrong arguments. The texts must outlive
/// it. Answering needs no platform, privilege or file.
class ProgramUsage {
 public:
  static constexpr int statusRefused = 1;
  static constexpr int statusWrongUsage = 2;

  /// `name` is what the administrator types; `usage` is the whole answer to `--help`, with its last
  /// line end.
  constexpr ProgramUsage(const char* name, const char* usage) : name_(name), usage_(usage) {}

  /// For a program that takes no arguments but `--help` and `--version`. Returns the exit status,
  /// or none when the program is to run.
  [[nodiscard]] std::optional<int> answer(int argc, const char* const* argv) const;

  /// Each writes its text and returns the exit status: 0, or `statusRefused` when standard output
  /// cannot be written.
  [[nodiscard]] int showHelp() const;
  [[nodiscard]] int showVersion() const;

  /// Writes the usage to standard error. Returns `statusWrongUsage`.
  [[nodiscard]] int refuse() const;

 private:
  [[nodiscard]] int finish(bool written) const;

  const char* name_;
  const char* usage_;
};
