#include <gtest/gtest.h>

#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "upnp/Service.h"

namespace {

using Values = std::vector<std::string>;

/// A service that lets the test fill its tables.
class Lamp : public Service {
 public:
  Lamp() : Service("urn:schemas-example:service:Lamp:1") {}
  using Service::addAct;
  using Service::addVar;

  UPNPStatus dim(const Values& in, Values& out) {
    out = in;
    return UPNP_SUCCESS;
  }
};

static_assert(!std::is_copy_constructible_v<Service> && !std::is_copy_assignable_v<Service>);

TEST(Service, StartsWithEmptyTables) {
  const Lamp lamp;
  EXPECT_TRUE(lamp.getVariables().empty());
  EXPECT_TRUE(lamp.getActions().empty());
}

// Promise: Reading a variable that is unknown or has no value gives the empty text.
TEST(Service, ReturnsEmptyTextForAVariableThatIsUnknownOrHasNoValue) {
  Lamp lamp;
  lamp.addVar("Brightness", {VAR_UI2, true});
  EXPECT_EQ(lamp.getVar("Brightness"), "");
  EXPECT_EQ(lamp.getVar("Colour"), "");
}

TEST(Service, SetsAVariable) {
  Lamp lamp;
  lamp.addVar("Brightness", {VAR_UI2, true}).setValue("10");
  lamp.setVar("Brightness", "20");
  EXPECT_EQ(lamp.getVar("Brightness"), "20");
  lamp.setVar("Brightness", "20");
  EXPECT_EQ(lamp.getVar("Brightness"), "20");
}

// Promise: A value that the router itself sets is not judged by the list of allowed values.
TEST(Service, SetsAVariableWithoutCheckingTheValue) {
  Lamp lamp;
  lamp.addVar("State", {makeContainer("On", "Off"), true});
  lamp.setVar("State", "Broken");
  EXPECT_EQ(lamp.getVar("State"), "Broken");
}

// Promise: Setting a variable that a service does not have changes nothing.
TEST(Service, IgnoresSettingAnUnknownVariable) {
  Lamp lamp;
  lamp.setVar("Colour", "red");
  EXPECT_TRUE(lamp.getVariables().empty());
}

class Meter {
 public:
  std::string read() { return std::to_string(++reads); }
  int reads = 0;
};

TEST(Service, ReadsThroughTheGetterUntilTheVariableIsSet) {
  Meter meter;
  Lamp lamp;
  lamp.addVar("Hours", {VAR_UI4, false}).setValue(&meter, &Meter::read);
  EXPECT_EQ(lamp.getVar("Hours"), "1");
  EXPECT_EQ(lamp.getVar("Hours"), "2");
  lamp.setVar("Hours", "0");
  EXPECT_EQ(lamp.getVar("Hours"), "0");
}

// Promise: A name that is registered twice means what was registered last.
TEST(Service, ReplacesAVariableThatIsRegisteredTwice) {
  Lamp lamp;
  lamp.addVar("State", {VAR_UI4, false}).setValue("1");
  lamp.addVar("State", {VAR_STRING, true});
  EXPECT_EQ(lamp.getVariables().size(), 1U);
  EXPECT_EQ(lamp.getVariables().at("State").type, VAR_STRING);
  EXPECT_EQ(lamp.getVar("State"), "");
}

// Promise: Variables are listed in the byte order of their names.
TEST(Service, SortsVariablesByTheBytesOfTheirNames) {
  Lamp lamp;
  for (const char* name : {"b", "a", "Z", "ab"}) lamp.addVar(name, {VAR_UI4, false});
  Values names;
  for (const auto& [name, variable] : lamp.getVariables()) names.push_back(name);
  EXPECT_EQ(names, (Values{"Z", "a", "ab", "b"}));
}

// Promise: An action's arguments keep the order in which they were registered, each with its
// variable.
TEST(Service, KeepsTheArgumentsOfAnActionInTheirOrder) {
  Lamp lamp;
  lamp.addAct("Dim", {"Brightness", "Colour"}, {"NewB", "NewC"}, {"Colour", "Brightness"},
              {"OutC", "OutB"}, &lamp, &Lamp::dim);
  const Action& action = lamp.getActions().at("Dim");
  EXPECT_EQ(action.inVars, (Values{"Brightness", "Colour"}));
  EXPECT_EQ(action.inArgs, (Values{"NewB", "NewC"}));
  EXPECT_EQ(action.outVars, (Values{"Colour", "Brightness"}));
  EXPECT_EQ(action.outArgs, (Values{"OutC", "OutB"}));
  ASSERT_TRUE(action.callback);
  Values out;
  EXPECT_EQ(action.callback({"5", "red"}, out), UPNP_SUCCESS);
  EXPECT_EQ(out, (Values{"5", "red"}));
}

// Promise: An action without a handler reads the values of its variables.
TEST(Service, HasNoHandlerWithoutAnOwnerOrAMemberFunction) {
  Lamp lamp;
  lamp.addAct("A", {}, {}, {}, {}, static_cast<Lamp*>(nullptr), &Lamp::dim);
  lamp.addAct("B", {}, {}, {}, {}, &lamp,
              static_cast<UPNPStatus (Lamp::*)(const Values&, Values&)>(nullptr));
  EXPECT_FALSE(lamp.getActions().at("A").callback);
  EXPECT_FALSE(lamp.getActions().at("B").callback);
}

// Promise: An action that only reads names its results `New` and the variable's name.
TEST(Service, NamesTheArgumentsOfAReadActionAfterItsVariables) {
  Lamp lamp;
  lamp.addAct("GetAll", {"ConnectionType", "Uptime"});
  const Action& action = lamp.getActions().at("GetAll");
  EXPECT_EQ(action.outVars, (Values{"ConnectionType", "Uptime"}));
  EXPECT_EQ(action.outArgs, (Values{"NewConnectionType", "NewUptime"}));
  EXPECT_TRUE(action.inVars.empty());
  EXPECT_TRUE(action.inArgs.empty());
  EXPECT_FALSE(action.callback);
}

// Promise: An action that only reads uses the names it was given, where it was given some.
TEST(Service, KeepsTheArgumentNamesGivenForAReadAction) {
  Lamp lamp;
  lamp.addAct("GetAll", {"X_Uptime"}, {"Uptime"});
  EXPECT_EQ(lamp.getActions().at("GetAll").outArgs, Values{"Uptime"});
}

TEST(Service, ReplacesAnActionThatIsRegisteredTwice) {
  Lamp lamp;
  lamp.addAct("Get", {"A"}, {"B"}, {}, {}, &lamp, &Lamp::dim);
  lamp.addAct("Get", {"C"});
  EXPECT_EQ(lamp.getActions().size(), 1U);
  EXPECT_FALSE(lamp.getActions().at("Get").callback);
  EXPECT_EQ(lamp.getActions().at("Get").outVars, Values{"C"});
}

}  // namespace
