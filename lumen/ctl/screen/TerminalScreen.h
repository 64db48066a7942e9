#pragma once

#include <csignal>

#include "lumen/ctl/screen/Screen.h"

namespace lumenctl {

/// The alternate screen of the terminal at standard output. Only one of these may exist at a time.
/// A signal that asks the program to end ends it at once, with status 0, and restores the terminal.
class TerminalScreen : public Screen {
 public:
  TerminalScreen();
  TerminalScreen(const TerminalScreen&) = delete;
  TerminalScreen& operator=(const TerminalScreen&) = delete;
  ~TerminalScreen() override;

  /// 80 by 24 when the terminal does not know.
  [[nodiscard]] Size size() override;
  /// As the locale in the environment says.
  [[nodiscard]] bool showsUtf8() override;
  void draw(const std::vector<std::string>& lines) override;
  /// The user quits with q.
  [[nodiscard]] Event wait(std::chrono::milliseconds limit) override;

 private:
  [[nodiscard]] bool endTyped();

  sigset_t whileWaiting_{};  // the signals that are blocked then; at other times SIGWINCH too
  bool hasKeys_;             // standard input is a terminal
};

}  // namespace lumenctl
