#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <new>
#include <string>
#include <vector>

namespace {

// What a program of the small build does where the C++ library would throw.
TEST(NoExceptions, EndTheProgramWithWhatIsWrong) {
  const std::string text = "text";
  const std::vector<int> none;
  const std::function<void()> unset;
  volatile size_t far = 9;
  EXPECT_DEATH((void)text.substr(far), "basic_string::substr: __pos \\(which is 9\\)");
  EXPECT_DEATH((void)none.at(far), "vector::_M_range_check: __n \\(which is 9\\)");
  EXPECT_DEATH((void)none[far], "Assertion '__n < this->size\\(\\)' failed");
  EXPECT_DEATH((void)std::string(std::numeric_limits<size_t>::max() - far, 'x'),
               "basic_string::_M_create");
  EXPECT_DEATH(unset(), "bad_function_call");
  EXPECT_DEATH((void)operator new(std::numeric_limits<size_t>::max() - far), "out of memory");
}

TEST(NoExceptions, LeaveOtherAllocationsAlone) {
  volatile size_t much = std::numeric_limits<size_t>::max() / 2;
  EXPECT_EQ(operator new(much, std::nothrow), nullptr);
  void* const nothing = operator new(0);
  EXPECT_NE(nothing, nullptr);
  operator delete(nothing);
}

}  // namespace
