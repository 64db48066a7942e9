#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/Fd.h"

/// A network namespace of the test's own, in which ports are free and multicast stays inside. Only
/// "lo" is in it, up, with 127.0.0.1 and 10.0.0.1, and the host is called "router": a domain in its
/// name would be searched for other hosts. Making one moves the whole test program there, once and
/// for good.
class PrivateNetwork {
 public:
  PrivateNetwork() {
    static const bool entered = enter();
    EXPECT_TRUE(entered) << "no network namespace: " << strerror(errno);
  }

 private:
  static bool enter() {
    const int spaces = CLONE_NEWNET | CLONE_NEWUTS | (geteuid() == 0 ? 0 : CLONE_NEWUSER);
    const uid_t user = geteuid();
    if (unshare(spaces) != 0) return false;
    if (user != 0 && !becomeRoot(user)) return false;
    if (sethostname("router", strlen("router")) != 0) return false;
    const lm::Fd socketForRequests(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return up(socketForRequests.get()) && addAddress(socketForRequests.get());
  }

  /// Of the user namespace only; what a test starts could do nothing otherwise.
  static bool becomeRoot(uid_t user) {
    const lm::Fd map(open("/proc/self/uid_map", O_WRONLY | O_CLOEXEC));
    const std::string line = "0 " + std::to_string(user) + " 1";
    return write(map.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size());
  }

  static bool up(int fd) {
    ifreq request = named("lo");
    request.ifr_flags = IFF_UP;
    return ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  }

  static bool addAddress(int fd) {
    ifreq request = named("lo:1");
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr("10.0.0.1");
    memcpy(&request.ifr_addr, &address, sizeof address);
    return ioctl(fd, SIOCSIFADDR, &request) == 0;
  }

  static ifreq named(const char* name) {
    ifreq request = {};
    strncpy(request.ifr_name, name, sizeof request.ifr_name - 1);
    return request;
  }
};
