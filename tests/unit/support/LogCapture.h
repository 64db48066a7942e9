#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

#include "platform/Fd.h"

namespace lm::test {

/// While it lives it takes what is written to standard output, at most a megabyte between two calls
/// of `text`, and gives it back at its end when the test has failed.
class LogCapture {
 public:
  LogCapture() : usual_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)) {
    std::array<int, 2> ends{};
    // A file would not take what a test with RLIMIT_FSIZE logs.
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    fcntl(ends[1], F_SETPIPE_SZ, 1024 * 1024);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    taken_.reset(ends[0]);
    std::fflush(stdout);
    dup2(ends[1], STDOUT_FILENO);
    close(ends[1]);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() {
    const std::string all = text();
    dup2(usual_.get(), STDOUT_FILENO);
    if (testing::Test::HasFailure()) std::fputs(all.c_str(), stdout);
  }

  /// All that has been written since the beginning.
  [[nodiscard]] std::string text() const {
    std::fflush(stdout);
    std::array<char, 4096> part{};
    ssize_t got = 0;
    while ((got = read(taken_.get(), part.data(), part.size())) > 0) {
      text_.append(part.data(), static_cast<size_t>(got));
    }
    return text_;
  }

 private:
  Fd usual_;
  Fd taken_;  // the end of a pipe
  mutable std::string text_;
};

}  // namespace lm::test
