#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "igd/OSInfo.h"

namespace {

std::string hostName;  // what the host under test is called

/// A C library that refuses a name that does not fit, after it has written what does.
int refusing(char* name, size_t length) {
  memcpy(name, hostName.data(), std::min(length, hostName.size()));
  if (hostName.size() >= length) {
    errno = ENAMETOOLONG;
    return -1;
  }
  name[hostName.size()] = '\0';
  return 0;
}

/// One that cuts it, without a zero.
int cutting(char* name, size_t length) {
  (void)refusing(name, length);
  return 0;
}

/// One that cuts it and ends it with a zero.
int cuttingWithZero(char* name, size_t length) {
  if (refusing(name, length) != 0) name[length - 1] = '\0';
  return 0;
}

std::string machineName(const std::string& host, OSInfo::HostName read) {
  hostName = host;
  return OSInfo(read).getVar("OSMachineName");
}

// Promise [osinfo]: OSInfo has four evented variables, `OSMajorVersion` `2`, `OSMinorVersion` `9`,
// `OSBuildNumber` `1234` and `OSMachineName`, and no actions.
TEST(OsInfo, HasFourEventedVariablesAndNoActions) {
  hostName = "ap";
  const OSInfo info(refusing);
  struct Row {
    std::string name;
    VarType type;
    std::string value;
  };
  const std::vector<Row> rows = {{"OSMajorVersion", VAR_UI4, "2"},
                                 {"OSMinorVersion", VAR_UI4, "9"},
                                 {"OSBuildNumber", VAR_UI4, "1234"},
                                 {"OSMachineName", VAR_STRING, "ap"}};
  EXPECT_EQ(info.getVariables().size(), rows.size());
  for (const auto& [name, type, value] : rows) {
    ASSERT_TRUE(info.getVariables().contains(name)) << name;
    const Variable& variable = info.getVariables().at(name);
    EXPECT_EQ(variable.type, type) << name;
    EXPECT_TRUE(variable.evented) << name;
    EXPECT_TRUE(variable.allowed.empty()) << name;
    EXPECT_EQ(info.getVar(name), value) << name;
  }
  EXPECT_TRUE(info.getActions().empty());
}

// Promise [osinfo-name]: `OSMachineName` is the host's name when that has at most three characters.
TEST(OsInfo, TakesANameOfAtMostThreeCharacters) {
  for (const auto read : {refusing, cutting, cuttingWithZero}) {
    EXPECT_EQ(machineName("a", read), "a");
    EXPECT_EQ(machineName("ap", read), "ap");
    EXPECT_EQ(machineName("ap1", read), "ap1");
  }
}

// Promise: A host name of more than three characters is left out: `OSMachineName` is then empty,
// whatever the C library does with such a name.
TEST(OsInfo, LeavesOutALongerNameWhateverTheCLibraryDoes) {
  for (const auto read : {refusing, cutting, cuttingWithZero}) {
    EXPECT_EQ(machineName("gate", read), "");
    EXPECT_EQ(machineName("router", read), "");
    EXPECT_EQ(machineName(std::string(64, 'x'), read), "");
  }
}

// Promise: A host without a name has an empty `OSMachineName`.
TEST(OsInfo, HasAnEmptyNameWhenTheHostHasNone) { EXPECT_EQ(machineName("", refusing), ""); }

TEST(OsInfo, ReadsTheNameOfThisHost) {
  char name[256] = {};
  ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
  const std::string whole = name;
  EXPECT_EQ(OSInfo().getVar("OSMachineName"), whole.size() <= 3 ? whole : "");
}

// Promise: The host's name is read once, when the daemon starts.
TEST(OsInfo, ReadsTheNameOnce) {
  hostName = "ap";
  const OSInfo info(refusing);
  hostName = "gw";
  EXPECT_EQ(info.getVar("OSMachineName"), "ap");
}

}  // namespace
