#include "lumen/ctl/screen/TerminalScreen.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "lumen/ctl/text/Errors.h"

namespace lumenctl {

namespace {

using Clock = std::chrono::steady_clock;

// Alternate screen, no cursor, no line wrap; and back (xterm's control sequences).
constexpr std::string_view enter = "\x1b[?1049h\x1b[?25l\x1b[?7l";
constexpr std::string_view leave = "\x1b[?7h\x1b[?25h\x1b[?1049l";

constexpr std::array endingSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

termios before;  // for the signal handler too

bool writeAll(std::string_view text) {
  while (!text.empty()) {
    const ssize_t length = write(STDOUT_FILENO, text.data(), text.size());
    if (length < 0 && errno != EINTR) return false;
    if (length > 0) text.remove_prefix(static_cast<size_t>(length));
  }
  return true;
}

/// Calls only what a signal handler may call.
void restore() {
  writeAll(leave);
  tcsetattr(STDOUT_FILENO, TCSAFLUSH, &before);
}

void endNow(int) {
  restore();
  _exit(0);
}

void handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigfillset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

}  // namespace

TerminalScreen::TerminalScreen() : hasKeys_(isatty(STDIN_FILENO) != 0) {
  if (tcgetattr(STDOUT_FILENO, &before) != 0) throw Refused("standard output is not a terminal");
  sigset_t resize;
  sigemptyset(&resize);
  sigaddset(&resize, SIGWINCH);
  sigprocmask(SIG_BLOCK, &resize, &whileWaiting_);
  sigdelset(&whileWaiting_, SIGWINCH);
  handle(SIGWINCH, [](int) {});
  for (const int signal : endingSignals) handle(signal, endNow);

  termios settings = before;
  settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  settings.c_cc[VMIN] = 0;
  settings.c_cc[VTIME] = 0;
  // A stopped program would leave its screen on the terminal.
  settings.c_cc[VSUSP] = _POSIX_VDISABLE;
  tcsetattr(STDOUT_FILENO, TCSAFLUSH, &settings);
  writeAll(enter);
}

TerminalScreen::~TerminalScreen() {
  restore();
  for (const int signal : endingSignals) handle(signal, SIG_DFL);
}

Screen::Size TerminalScreen::size() {
  winsize known{};
  ioctl(STDOUT_FILENO, TIOCGWINSZ, &known);
  return {known.ws_col == 0 ? 80U : known.ws_col, known.ws_row == 0 ? 24U : known.ws_row};
}

bool TerminalScreen::showsUtf8() {
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* const locale = std::getenv(name);
    if (locale == nullptr || *locale == '\0') continue;
    const std::string_view text(locale);
    return text.find("UTF-8") != text.npos || text.find("utf8") != text.npos;
  }
  return false;
}

void TerminalScreen::draw(const std::vector<std::string>& lines) {
  std::string text = "\x1b[H";  // to the first column of the first line
  for (const std::string& line : lines) {
    if (&line != &lines.front()) text += "\r\n";
    text += line + "\x1b[K";  // clear the rest of the line
  }
  text += "\x1b[J";
  if (!writeAll(text)) throw Refused(outputFailed);
}

Screen::Event TerminalScreen::wait(std::chrono::milliseconds limit) {
  const Clock::time_point end = Clock::now() + limit;
  while (true) {
    const auto left = std::max(end - Clock::now(), Clock::duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    const std::chrono::nanoseconds rest = left - seconds;
    const timespec time{static_cast<time_t>(seconds.count()), static_cast<long>(rest.count())};
    pollfd keys{hasKeys_ ? STDIN_FILENO : -1, POLLIN, 0};
    const int ready = ppoll(&keys, 1, &time, &whileWaiting_);
    if (ready < 0) return Event::resized;
    if (ready == 0) return Event::timeOver;
    if (endTyped()) return Event::end;
  }
}

bool TerminalScreen::endTyped() {
  std::array<char, 64> typed{};
  const ssize_t length = read(STDIN_FILENO, typed.data(), typed.size());
  if (length <= 0) hasKeys_ = false;
  const auto* const last = typed.data() + std::max<ssize_t>(length, 0);
  return std::find_if(static_cast<const char*>(typed.data()), last,
                      [](char key) { return key == 'q' || key == 'Q'; }) != last;
}

}  // namespace lumenctl
