#pragma once

#include <iostream>
#include <sstream>
#include <string>

namespace lm::test {

/// While it lives it takes what is written to std::cout.
class LogCapture {
 public:
  LogCapture() : usual_(std::cout.rdbuf(text_.rdbuf())) {}
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() { std::cout.rdbuf(usual_); }

  [[nodiscard]] std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* usual_;
};

}  // namespace lm::test
