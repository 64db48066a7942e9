#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/Fd.h"
#include "support/PrivateNetwork.h"

namespace lumen::test {

/// A fresh network namespace. The test program moves there permanently.
class FreshNetwork {
 public:
  FreshNetwork() { EXPECT_EQ(unshare(CLONE_NEWNET), 0); }

 private:
  PrivateNetwork first_;  // for programs without privilege: also a user namespace
};

/// A host at 45.45.45.7 and 45.45.45.8 in a network namespace of its own. The test's own namespace
/// becomes a router that it reaches at 45.45.45.1, with the LAN 192.168.88.0/24 on the other side.
class WanHost {
 public:
  WanHost() {
    startNamespace();
    const std::string pid = std::to_string(child_);
    run("ip link add wan0 type veth peer name host0 netns " + pid);
    run("ip addr add 45.45.45.1/24 dev wan0 && ip addr add 45.45.45.2/24 dev wan0 && ip link set "
        "wan0 up");
    run("nsenter -t " + pid + " -n ip addr add 45.45.45.7/24 dev host0");
    run("nsenter -t " + pid + " -n ip addr add 45.45.45.8/24 dev host0");
    run("nsenter -t " + pid + " -n ip link set host0 up");
    // No host is there; it is enough that packets leave.
    run("ip link add lan0 type veth peer name lan1 && ip link set lan1 up");
    run("ip addr add 192.168.88.1/24 dev lan0 && ip link set lan0 up");
    run("ip neigh add 192.168.88.10 lladdr 02:00:00:00:00:10 dev lan0");
    std::ofstream("/proc/sys/net/ipv4/ip_forward") << "1";
  }
  WanHost(const WanHost&) = delete;
  WanHost& operator=(const WanHost&) = delete;
  ~WanHost() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }

  /// A UDP socket of that host, bound to `port`, for packets to `remotePort` of the router.
  lm::Fd udpSocket(uint16_t port, uint16_t remotePort, const char* remoteAddress = "45.45.45.1",
                   const char* ownAddress = "0.0.0.0") const {
    const lm::Fd here(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
    const std::string path = "/proc/" + std::to_string(child_) + "/ns/net";
    const lm::Fd there(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(setns(there.get(), CLONE_NEWNET), 0);
    lm::Fd result(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(setns(here.get(), CLONE_NEWNET), 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = inet_addr(ownAddress);
    EXPECT_EQ(bind(result.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    address.sin_addr.s_addr = inet_addr(remoteAddress);
    address.sin_port = htons(remotePort);
    EXPECT_EQ(connect(result.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return result;
  }

 private:
  void startNamespace() {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    child_ = fork();
    if (child_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const bool entered = unshare(CLONE_NEWNET) == 0;
      _exit(write(ready[1], "x", entered ? 1 : 0) == 1 ? (pause(), 0) : 1);
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
  }

  static void run(const std::string& command) {
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
  }

  pid_t child_ = -1;
};

}  // namespace lumen::test
