#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "lumen/services/identity/Identity.h"
#include "platform/Keys.h"
#include "platform/Store.h"
#include "support/RefusedCall.h"
#include "support/TempDir.h"

namespace lumen {
namespace {

class IdentityTest : public testing::Test {
 protected:
  static std::string read(Identity& identity) {
    return identity.handle(Caller{}, lm::cmd::get, {}).get_string(0x20000001);
  }
  std::string readAfterStart() {
    Identity identity(store_.path());
    return read(identity);
  }

  lm::test::TempDir store_;
};

// Promise [identity-form]: The identity is 32 lower-case hexadecimal digits.
TEST_F(IdentityTest, IsThirtyTwoHexadecimalDigits) {
  const std::string identity = readAfterStart();
  EXPECT_EQ(identity.size(), 32U);
  EXPECT_EQ(identity.find_first_not_of("0123456789abcdef"), std::string::npos) << identity;
}

// Promise [identity-stays]: The identity stays for the life of an installation and differs between
// routers.
TEST_F(IdentityTest, StaysTheSameFromStartToStart) {
  const std::string identity = readAfterStart();
  EXPECT_EQ(readAfterStart(), identity);
}

// Also proves [identity-stays].
TEST_F(IdentityTest, DiffersBetweenRouters) {
  const std::string identity = readAfterStart();
  std::filesystem::remove(store_.file("0"));
  EXPECT_NE(readAfterStart(), identity);
}

TEST_F(IdentityTest, IsReplacedWhenTheStoredOneIsBroken) {
  testing::internal::CaptureStdout();
  const std::string identity = readAfterStart();
  store_.write("0", "broken");
  const std::string second = readAfterStart();
  EXPECT_EQ(second.size(), 32U);
  EXPECT_NE(second, identity);
  EXPECT_EQ(readAfterStart(), second);
  EXPECT_NE(testing::internal::GetCapturedStdout(), "") << "that is reported";
}

// Promise [identity-broken]: A stored identity that is broken is reported and replaced, one that
// cannot be read is set aside, one that cannot be stored lasts as long as lumend.
TEST_F(IdentityTest, IsReplacedAndTheStoredOneSetAsideWhenThatCannotBeRead) {
  testing::internal::CaptureStdout();
  const std::string identity = readAfterStart();
  std::string second;
  whileRefused({SCMP_SYS(read)}, EIO, [&] { second = readAfterStart(); });
  EXPECT_NE(second, identity);
  EXPECT_EQ(readAfterStart(), second);
  std::filesystem::rename(store_.file("0.broken"), store_.file("0"));
  EXPECT_EQ(readAfterStart(), identity);
  EXPECT_NE(testing::internal::GetCapturedStdout(), "") << "that is reported";
}

TEST_F(IdentityTest, IsReplacedWhenTheStoredOneIsInvalid) {
  for (const char* wrong : {"", "0c5e9a51", "0123456789ABCDEF0123456789ABCDEF"}) {
    lm::message record;
    record.insert_string(0x20000001, wrong);
    lm::Store(store_.path(), 1).set(0, record);
    const std::string identity = readAfterStart();
    EXPECT_EQ(identity.size(), 32U);
    EXPECT_NE(identity, wrong);
    EXPECT_EQ(readAfterStart(), identity);
  }
}

TEST_F(IdentityTest, LastsAsLongAsTheProcessWhenItCannotBeStored) {
  testing::internal::CaptureStdout();
  Identity identity(store_.file("nowhere"));
  EXPECT_EQ(read(identity).size(), 32U);
  EXPECT_EQ(read(identity), read(identity));
  EXPECT_NE(testing::internal::GetCapturedStdout(), "");
}

// Promise: The identity cannot be written: `unknown command`.
TEST_F(IdentityTest, CannotBeWritten) {
  Identity identity(store_.path());
  EXPECT_EQ(lm::getError(identity.handle(Caller{}, lm::cmd::set, {})), "unknown command");
}

}  // namespace
}  // namespace lumen
