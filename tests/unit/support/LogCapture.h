#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "platform/Fd.h"

namespace lm::test {

/// While it lives it takes what is written to standard output, and gives it back at its end when
/// the test has failed.
class LogCapture {
 public:
  LogCapture()
      : usual_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)), taken_(memfd_create("log", MFD_CLOEXEC)) {
    std::fflush(stdout);
    dup2(taken_.get(), STDOUT_FILENO);
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
    std::string all(static_cast<size_t>(lseek(taken_.get(), 0, SEEK_END)), '\0');
    const ssize_t got = pread(taken_.get(), all.data(), all.size(), 0);
    all.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return all;
  }

 private:
  Fd usual_;
  Fd taken_;
};

}  // namespace lm::test
