#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace lm::test {

/// While it lives it takes what is written to standard output, and gives it back at its end when
/// the test has failed.
class OutputCapture {
 public:
  OutputCapture() { testing::internal::CaptureStdout(); }
  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;
  ~OutputCapture() {
    text_ += testing::internal::GetCapturedStdout();
    if (testing::Test::HasFailure()) std::fputs(text_.c_str(), stdout);
  }

  /// All of it by now.
  [[nodiscard]] const std::string& text() {
    text_ += testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    return text_;
  }

 private:
  std::string text_;
};

}  // namespace lm::test
