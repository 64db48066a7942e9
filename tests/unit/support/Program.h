#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/Fd.h"

namespace lm::test {

/// One of our programs, running as its own process, with what it and its children print. It
/// is killed at the end.
class Program {
 public:
  /// The first of `command` is the path. `prepare` runs in the new process before the program does.
  explicit Program(
      std::vector<std::string> command, const std::function<void()>& prepare = [] {});
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  /// Waits until `text` has been printed; false when that does not come to pass.
  [[nodiscard]] bool prints(const std::string& text);

  /// All that is printed until the program and its children have ended.
  [[nodiscard]] std::string wholeOutput();

  /// Asks it to end.
  void terminate() const;

  /// Waits for its end. Returns the exit status; -1 when it was killed or does not end.
  [[nodiscard]] int status();

  [[nodiscard]] pid_t pid() const { return pid_; }

 private:
  bool readMore();

  pid_t pid_ = -1;
  Fd process_;
  Fd output_;
  std::string printed_;
  std::optional<int> status_;
};

}  // namespace lm::test
