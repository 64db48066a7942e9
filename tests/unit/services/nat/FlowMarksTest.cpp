#include <gtest/gtest.h>

#include <set>
#include <string>

#include "lumen/services/nat/FlowMarks.h"
#include "support/Ipv4Text.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace lumen::test {

namespace {

const Endpoint phone = {ip("45.45.45.1"), 5060};
const Endpoint last = {ip("45.45.45.9"), 65535};

class FlowMarksTest : public ::testing::Test {
 protected:
  lm::test::TempDir folder;
  FlowMarks marks{folder.path()};
};

// Also proves [flows-files].
TEST_F(FlowMarksTest, AreFilesThatTheNextProcessFinds) {
  EXPECT_EQ(marks.all(), std::set<Endpoint>());
  marks.set(phone);
  marks.set(last);
  marks.set(phone);
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"45.45.45.1:5060", "45.45.45.9:65535"}));
  EXPECT_EQ(FlowMarks(folder.path()).all(), (std::set<Endpoint>{phone, last}));
}

// Also proves [flows-files].
TEST_F(FlowMarksTest, AreGoneOnceCleared) {
  marks.set(phone);
  marks.set(last);
  marks.clear(phone);
  EXPECT_EQ(marks.all(), std::set<Endpoint>{last});
  lm::test::LogCapture log;
  marks.clear(phone);
  EXPECT_EQ(log.text(), "") << "cleared twice";
}

// Promise: Files of other names in that folder are left alone, and a missing folder is reported:
// `flow mark /lumen/run/udp: No such file or directory`.
TEST_F(FlowMarksTest, LeavesFilesOfOtherNamesAlone) {
  for (const char* name : {"45.45.45.1", "45.45.45.1:", "45.45.45.1:05060", "45.45.45.1:65536",
                           "45.45.45.1:-1", "45.45.45.1:5060 ", "45.45.45:5060", ":5060",
                           "045.45.45.1:5060", "45.45.45.1:5060:", "x"}) {
    folder.write(name, "");
  }
  EXPECT_EQ(marks.all(), std::set<Endpoint>());
  EXPECT_EQ(folder.names().size(), 11U);
}

TEST_F(FlowMarksTest, ReportAFolderThatIsMissing) {
  const FlowMarks missing(folder.file("udp"));
  lm::test::LogCapture log;
  missing.set(phone);
  EXPECT_EQ(missing.all(), std::set<Endpoint>());
  const std::string where = folder.file("udp");
  EXPECT_EQ(log.text(), "flow mark " + where +
                            "/45.45.45.1:5060: No such file or directory\n"
                            "flow mark " +
                            where + ": No such file or directory\n");
}

}  // namespace

}  // namespace lumen::test
