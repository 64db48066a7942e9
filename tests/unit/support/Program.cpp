#include "support/Program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace lm::test {

namespace {

constexpr int limit = 30'000;  // milliseconds

[[noreturn]] void become(std::vector<std::string>& command, const std::function<void()>& prepare,
                         int output) {
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  prepare();
  std::vector<char*> raw;
  raw.reserve(command.size() + 1);
  for (std::string& argument : command) raw.push_back(argument.data());
  raw.push_back(nullptr);
  execv(raw[0], raw.data());
  _exit(127);
}

}  // namespace

Program::Program(std::vector<std::string> command, const std::function<void()>& prepare) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  output_.reset(ends[0]);
  const Fd input(ends[1]);
  pid_ = fork();
  if (pid_ == 0) become(command, prepare, input.get());
  process_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
  EXPECT_TRUE(process_.valid());
}

Program::~Program() {
  if (status_) return;
  kill(pid_, SIGKILL);
  (void)status();
}

bool Program::prints(const std::string& text) {
  while (printed_.find(text) == std::string::npos) {
    if (!readMore()) return false;
  }
  return true;
}

std::string Program::wholeOutput() {
  while (readMore()) continue;
  return printed_;
}

void Program::terminate() const { kill(pid_, SIGTERM); }

int Program::status() {
  pollfd ended = {process_.get(), POLLIN, 0};
  if (!status_ && poll(&ended, 1, limit) == 1) {
    int status = 0;
    waitpid(pid_, &status, 0);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  return status_.value_or(-1);
}

bool Program::readMore() {
  pollfd readable = {output_.get(), POLLIN, 0};
  if (poll(&readable, 1, limit) != 1) return false;
  char buffer[4096];
  const ssize_t length = read(output_.get(), buffer, sizeof buffer);
  if (length <= 0) return false;
  printed_.append(buffer, static_cast<size_t>(length));
  return true;
}

}  // namespace lm::test
