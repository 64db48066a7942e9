#include <gtest/gtest.h>

#include <list>
#include <string>
#include <vector>

#include "upnp/Variable.h"

namespace {

struct Sample {
  std::string text;
  bool valid;
  std::string reason;
};

void expectValidity(const Variable& variable, const std::vector<Sample>& samples) {
  for (const auto& [text, valid, reason] : samples) {
    EXPECT_EQ(variable.isValid(text), valid) << "'" << text << "': " << reason;
  }
}

TEST(Variable, StartsWithoutValueOrRange) {
  const Variable number(VAR_UI2, true);
  EXPECT_TRUE(number.evented);
  EXPECT_EQ(number.type, VAR_UI2);
  EXPECT_FALSE(number.hasRange);
  EXPECT_TRUE(number.allowed.empty());
  EXPECT_FALSE(number.hasValue);
  EXPECT_FALSE(number.getter);

  const Variable text(makeContainer("TCP", "UDP"), false);
  EXPECT_FALSE(text.evented);
  EXPECT_EQ(text.type, VAR_STRING);
  EXPECT_EQ(text.allowed, (std::vector<std::string>{"TCP", "UDP"}));
  EXPECT_FALSE(text.hasRange);
  EXPECT_FALSE(text.hasValue);
}

TEST(Variable, TypesHaveTheirNumbers) {
  EXPECT_EQ(VAR_UI4, 0);
  EXPECT_EQ(VAR_UI2, 1);
  EXPECT_EQ(VAR_STRING, 2);
  EXPECT_EQ(VAR_BOOLEAN, 3);
}

TEST(Variable, ContainerKeepsTheOrderOfItsTexts) {
  EXPECT_EQ(makeContainer<std::list<std::string>>("b", "a", std::string("c")),
            (std::list<std::string>{"b", "a", "c"}));
  EXPECT_EQ(makeContainer("one"), std::vector<std::string>{"one"});
  EXPECT_TRUE(makeContainer().empty());
}

// Promise [ui2]: A `ui2` argument is a decimal number from 0 to 65535; 65536 is refused.
// Promise [empty-number]: An empty number is 0.
// Promise: Blanks and a sign may stand before a number; any character after it makes it invalid, as
// in `12a`.
// Also proves [negative-number].
TEST(Variable, TakesShortNumbers) {
  expectValidity(Variable(VAR_UI2, false), {
                                               {"0", true, "smallest"},
                                               {"65535", true, "largest"},
                                               {"65536", false, "one too many"},
                                               {"", true, "nothing is 0"},
                                               {"12a", false, "a letter is left"},
                                               {"12 ", false, "a blank is left"},
                                               {" 12", true, "the conversion skips blanks"},
                                               {"\t\n12", true, "and other white space"},
                                               {"+12", true, "and takes a sign"},
                                               {"0012", true, "and leading zeros"},
                                               {" ", false, "a blank alone is no number"},
                                               {"+", false, "nor is a sign"},
                                               {"- 1", false, "nothing between sign and digits"},
                                               {"--1", false, "one sign only"},
                                               {"0x10", false, "decimal only"},
                                               {"1.0", false, "whole numbers only"},
                                               {"-1", false, "wraps to 4294967295"},
                                               {"-0", true, "is 0"},
                                               {"-4294967295", true, "wraps to 1"},
                                               {"4294967297", false, "saturates, does not wrap"},
                                           });
}

// Promise [ui4]: A `ui4` argument is a decimal number from 0 to 4294967295; a larger one counts as
// 4294967295, on 64-bit machines too.
// Promise [negative-number]: A negative number wraps: `-1` is a `ui4` of 4294967295 and no `ui2`.
// Also proves [empty-number].
TEST(Variable, TakesLongNumbers) {
  expectValidity(Variable(VAR_UI4, false), {
                                               {"0", true, "smallest"},
                                               {"4294967295", true, "largest"},
                                               {"4294967296", true, "saturates"},
                                               {"99999999999999999999999", true, "saturates"},
                                               {"99999999999999999999999x", false, "and a letter"},
                                               {"-1", true, "wraps to the largest"},
                                               {"", true, "nothing is 0"},
                                               {"x", false, "no digits"},
                                               {"12a", false, "a letter is left"},
                                           });
}

// Promise: A number outside its variable's range, both ends included, is refused.
TEST(Variable, KeepsNumbersInItsRange) {
  Variable port(VAR_UI2, false);
  port.hasRange = true;
  port.rangeMin = 10;
  port.rangeMax = 70000;
  expectValidity(port, {
                           {"9", false, "below"},
                           {"10", true, "lowest"},
                           {"65535", true, "highest of its type"},
                           {"65536", false, "in the range but not of the type"},
                           {"", false, "0 is below"},
                       });
  Variable lease(VAR_UI4, false);
  lease.hasRange = true;
  lease.rangeMax = 604800;
  expectValidity(lease, {
                            {"604800", true, "highest"},
                            {"604801", false, "above"},
                            {"-1", false, "wraps to a number above"},
                        });
}

// Promise [boolean]: A boolean argument is `1`, `0`, `true`, `false`, `yes` or `no`, in lower case;
// nothing else.
TEST(Variable, TakesTheSixSpellingsOfABoolean) {
  const Variable flag(VAR_BOOLEAN, false);
  for (const char* text : {"1", "0", "true", "false", "yes", "no"}) {
    EXPECT_TRUE(flag.isValid(text)) << text;
  }
  for (const char* text : {"True", "TRUE", "Yes", "NO", "", " 1", "01", "2", "on", "yes "}) {
    EXPECT_FALSE(flag.isValid(text)) << text;
  }
}

// Promise [allowed-values]: A string argument with a list of allowed values is one of them, case
// included.
TEST(Variable, TakesOneOfTheAllowedTexts) {
  expectValidity(Variable(makeContainer("TCP", "UDP"), false), {
                                                                   {"TCP", true, "allowed"},
                                                                   {"UDP", true, "allowed"},
                                                                   {"tcp", false, "case matters"},
                                                                   {"TCP ", false, "blanks matter"},
                                                                   {"", false, "not in the list"},
                                                               });
}

// Promise: A string argument without such a list is any text, the empty one too.
TEST(Variable, TakesAnyTextWithoutAllowedTexts) {
  for (const Variable& text : {Variable(VAR_STRING, false), Variable(makeContainer(), false)}) {
    EXPECT_TRUE(text.isValid(""));
    EXPECT_TRUE(text.isValid("<any> & \"thing\""));
  }
}

// Promise: A variable of an unknown type takes nothing.
TEST(Variable, OfAnUnknownTypeTakesNothing) {
  for (const int type : {-1, 4, 1000}) {
    EXPECT_FALSE(Variable(static_cast<VarType>(type), false).isValid("1")) << type;
  }
}

// Promise: A variable without a value is left out of events and answers a query with a fault.
// Promise: An empty text is a value.
TEST(Variable, HasNoValueUntilOneIsSet) {
  Variable variable(VAR_STRING, false);
  std::string out = "untouched";
  EXPECT_FALSE(variable.getValue(out));
  EXPECT_EQ(out, "untouched");

  variable.setValue("");
  EXPECT_TRUE(variable.getValue(out));
  EXPECT_EQ(out, "");

  variable.setValue("text");
  EXPECT_TRUE(variable.getValue(out));
  EXPECT_EQ(out, "text");

  variable.clearValue();
  out = "untouched";
  EXPECT_FALSE(variable.getValue(out));
  EXPECT_EQ(out, "untouched");
  EXPECT_EQ(variable.value, "");
}

/// Counts how often it is read.
class Meter {
 public:
  std::string read() { return std::to_string(++reads); }
  std::string zero() { return "0"; }
  int reads = 0;
};

// Promise: A computed variable is computed at every read.
TEST(Variable, AsksItsGetterAtEveryRead) {
  Meter meter;
  Variable variable(VAR_UI4, false);
  variable.setValue(&meter, &Meter::read);
  EXPECT_EQ(meter.reads, 0);

  std::string out;
  EXPECT_TRUE(variable.getValue(out));
  EXPECT_TRUE(variable.getValue(out));
  EXPECT_EQ(out, "2");
  EXPECT_EQ(meter.reads, 2);
}

TEST(Variable, ReplacesAGetterByAnother) {
  Meter meter;
  Variable variable(VAR_UI4, false);
  variable.setValue(&meter, &Meter::read);
  variable.setValue(&meter, &Meter::zero);
  std::string out;
  EXPECT_TRUE(variable.getValue(out));
  EXPECT_EQ(out, "0");
  EXPECT_EQ(meter.reads, 0);
}

// Promise: A value that is set takes the place of the computation.
TEST(Variable, DropsItsGetterForAStoredValue) {
  Meter meter;
  Variable variable(VAR_UI4, false);
  variable.setValue("5");
  variable.setValue(&meter, &Meter::read);
  EXPECT_EQ(variable.value, "5");
  variable.setValue("7");
  std::string out;
  EXPECT_TRUE(variable.getValue(out));
  EXPECT_EQ(out, "7");
  EXPECT_EQ(meter.reads, 0);
}

// Promise: A variable whose value is cleared has neither a value nor a computation.
TEST(Variable, DropsItsGetterWhenCleared) {
  Meter meter;
  Variable variable(VAR_UI4, false);
  variable.setValue(&meter, &Meter::read);
  variable.clearValue();
  std::string out;
  EXPECT_FALSE(variable.getValue(out));
  EXPECT_EQ(meter.reads, 0);
}

}  // namespace
