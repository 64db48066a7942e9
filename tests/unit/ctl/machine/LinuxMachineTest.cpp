#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <sstream>

#include "lumen/ctl/machine/LinuxMachine.h"
#include "platform/Fd.h"
#include "support/PrivateNetwork.h"
#include "support/RefusedCall.h"
#include "support/TempDir.h"

namespace lumenctl {
namespace {

TEST(LinuxMachineTest, ReadsFiles) {
  LinuxMachine machine;
  const lm::test::TempDir dir;
  const std::string text(40'000, 'x');
  dir.write("long", text);
  EXPECT_EQ(machine.read(dir.file("long")), text);
  dir.write("empty", "");
  EXPECT_EQ(machine.read(dir.file("empty")), "");

  EXPECT_EQ(machine.read(dir.file("missing")), std::nullopt);
  EXPECT_EQ(errno, ENOENT);
  whileRefused({SCMP_SYS(read)}, EIO, [&] {
    EXPECT_EQ(machine.read(dir.file("long")), std::nullopt);
    EXPECT_EQ(errno, EIO);
  });
}

TEST(LinuxMachineTest, TellsABridgeFromOtherLinks) {
  const PrivateNetwork network;
  ASSERT_EQ(system("ip link add br-lan type bridge && ip link add wan0 type veth peer name far0"),
            0);
  LinuxMachine machine;
  EXPECT_TRUE(machine.isBridge("br-lan"));
  EXPECT_FALSE(machine.isBridge("wan0"));
  EXPECT_FALSE(machine.isBridge("lo"));
  EXPECT_FALSE(machine.isBridge("missing"));
  EXPECT_FALSE(machine.isBridge("a-name-that-no-link-can-have"));
}

TEST(LinuxMachineTest, NamesTheOwnerOfASocket) {
  LinuxMachine machine;
  const lm::Fd held(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  struct stat status {};
  ASSERT_EQ(fstat(held.get(), &status), 0);
  const Process owner = machine.ownerOf(status.st_ino);
  EXPECT_EQ(owner.id, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(owner.name, "ctl_test");
  EXPECT_EQ(machine.ownerOf(0).id, 0U);
}

/// While it lives, standard input and output are `fd`.
class StandardStreams {
 public:
  explicit StandardStreams(int fd) : input_(dup(STDIN_FILENO)), output_(dup(STDOUT_FILENO)) {
    std::cout.flush();
    fflush(stdout);
    dup2(fd, STDIN_FILENO);
    dup2(fd, STDOUT_FILENO);
  }
  StandardStreams(const StandardStreams&) = delete;
  StandardStreams& operator=(const StandardStreams&) = delete;
  ~StandardStreams() {
    dup2(input_.get(), STDIN_FILENO);
    dup2(output_.get(), STDOUT_FILENO);
  }

 private:
  lm::Fd input_;
  lm::Fd output_;
};

TEST(LinuxMachineTest, HasATerminalWhenInputAndOutputAreOne) {
  LinuxMachine machine;
  const lm::Fd keyboard(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_EQ(grantpt(keyboard.get()) + unlockpt(keyboard.get()), 0);
  const lm::Fd terminal(open(ptsname(keyboard.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
  const lm::Fd file(open("/dev/null", O_RDWR | O_CLOEXEC));
  bool atTerminal = false;
  bool atFile = true;
  bool atHalf = true;
  {
    const StandardStreams streams(terminal.get());
    atTerminal = machine.hasTerminal();
    dup2(file.get(), STDOUT_FILENO);
    atHalf = machine.hasTerminal();
  }
  {
    const StandardStreams streams(file.get());
    atFile = machine.hasTerminal();
  }
  EXPECT_TRUE(atTerminal);
  EXPECT_FALSE(atHalf) << "the question would not be seen";
  EXPECT_FALSE(atFile);
}

TEST(LinuxMachineTest, TakesLineAfterLineUntilTheEnd) {
  std::istringstream typed("yes\n\nno");
  std::streambuf* const usual = std::cin.rdbuf(typed.rdbuf());
  LinuxMachine machine;
  EXPECT_EQ(machine.typedLine(), "yes");
  EXPECT_EQ(machine.typedLine(), "");
  EXPECT_EQ(machine.typedLine(), "no");
  EXPECT_EQ(machine.typedLine(), std::nullopt);
  std::cin.rdbuf(usual);
}

}  // namespace
}  // namespace lumenctl
