#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace lm::test {

/// What is logged while `work` runs.
inline std::string logged(const std::function<void()>& work) {
  testing::internal::CaptureStdout();
  work();
  return testing::internal::GetCapturedStdout();
}

}  // namespace lm::test
