#include "core/PrivateRouter.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

void check(bool good, const char* what) {
  if (good) return;
  perror(what);
  fprintf(stderr, "these tests make mounts and networks of their own and need root\n");
  exit(1);
}

void shell(const std::string& command) { check(system(command.c_str()) == 0, command.c_str()); }

lm::Fd currentNetwork() { return lm::Fd(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)); }

std::string pathOf(const lm::Fd& network) {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(network.get());
}

/// Changes to a root that shows everything of the old one and a /lumen besides. A folder made in
/// the real root would be seen by, and clash with, everybody else.
void enterPrivateRoot() {
  const std::string workingDirectory = fs::current_path();
  check(unshare(CLONE_NEWNS) == 0, "unshare");
  check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount");
  check(mount("none", "/mnt", "tmpfs", 0, nullptr) == 0, "mount");
  check(mkdir("/mnt/.old", 0755) == 0, "mkdir");
  check(syscall(SYS_pivot_root, "/mnt", "/mnt/.old") == 0, "pivot_root");
  check(chdir("/") == 0, "chdir");
  for (const fs::directory_entry& entry : fs::directory_iterator("/.old")) {
    const fs::path target = "/" / entry.path().filename();
    if (target == "/lumen") continue;
    if (entry.is_symlink()) {
      fs::copy_symlink(entry.path(), target);
    } else if (entry.is_directory()) {
      check(mkdir(target.c_str(), 0755) == 0, "mkdir");
      check(mount(entry.path().c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
            "mount");
    }
  }
  fs::create_directories("/lumen/store");
  check(umount2("/.old", MNT_DETACH) == 0, "umount");
  check(chdir(workingDirectory.c_str()) == 0, "chdir");
}

/// For a moment after its other end has come up the kernel still drops what is sent at this end.
void waitUntilRunning(const char* link) {
  const lm::Fd any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request = {};
  strncpy(request.ifr_name, link, sizeof request.ifr_name - 1);
  for (int i = 0; i < 5000; ++i) {
    check(ioctl(any.get(), SIOCGIFFLAGS, &request) == 0, link);
    if ((request.ifr_flags & IFF_RUNNING) != 0) return;
    poll(nullptr, 0, 1);
  }
  check(false, link);
}

sockaddr_in endpoint(const char* address, uint16_t port) {
  sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  result.sin_addr.s_addr = inet_addr(address);
  return result;
}

}  // namespace

PrivateRouter& PrivateRouter::get() {
  static PrivateRouter router;
  return router;
}

PrivateRouter::PrivateRouter() {
  enterPrivateRoot();
  check(unshare(CLONE_NEWNET) == 0, "unshare");
  const lm::Fd router = currentNetwork();
  check(unshare(CLONE_NEWNET) == 0, "unshare");
  host_ = currentNetwork();
  shell("ip link set lo up && ip link add host0 type veth peer name lan0 netns " + pathOf(router) +
        " && ip addr add 192.168.88.10/24 dev host0 && ip link set host0 up");
  check(setns(router.get(), CLONE_NEWNET) == 0, "setns");
  shell("ip link set lo up && ip addr add 192.168.88.1/24 dev lan0 && ip link set lan0 up");
  check(setns(host_.get(), CLONE_NEWNET) == 0, "setns");
  waitUntilRunning("host0");
  check(setns(router.get(), CLONE_NEWNET) == 0, "setns");
}

void PrivateRouter::emptyStores() const {
  for (const char* store : {"/lumen/store/upnp", "/lumen/store/upnpm"}) {
    fs::remove_all(store);
    fs::create_directory(store);
  }
}

unsigned int PrivateRouter::lanIndex() const { return if_nametoindex("lan0"); }

lm::Fd PrivateRouter::hostSocket(int type) const {
  const lm::Fd router = currentNetwork();
  check(setns(host_.get(), CLONE_NEWNET) == 0, "setns");
  lm::Fd made(socket(AF_INET, type | SOCK_CLOEXEC, 0));
  check(setns(router.get(), CLONE_NEWNET) == 0, "setns");
  check(made.valid(), "socket");
  return made;
}

lm::Fd PrivateRouter::hostListener() const {
  lm::Fd made = hostSocket(SOCK_DGRAM);
  const sockaddr_in local = endpoint("0.0.0.0", 1900);
  check(bind(made.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0, "bind");
  ip_mreqn group = {};
  group.imr_multiaddr.s_addr = inet_addr("239.255.255.250");
  group.imr_address.s_addr = inet_addr("192.168.88.10");
  check(setsockopt(made.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) == 0, "join");
  // What was sent before may be on its way still.
  (void)received(made);
  return made;
}

std::vector<std::string> PrivateRouter::received(const lm::Fd& socket) const {
  // A cable keeps the order of datagrams: what was sent before the last one arrives before it.
  static const std::string last = "the last one";
  sockaddr_in to = {};
  socklen_t length = sizeof to;
  check(getsockname(socket.get(), reinterpret_cast<sockaddr*>(&to), &length) == 0, "getsockname");
  to.sin_addr.s_addr = inet_addr("192.168.88.10");
  const lm::Fd sender(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  check(sendto(sender.get(), last.data(), last.size(), 0, reinterpret_cast<sockaddr*>(&to),
               sizeof to) > 0,
        "sendto");
  std::vector<std::string> datagrams;
  while (true) {
    pollfd ready = {socket.get(), POLLIN, 0};
    check(poll(&ready, 1, 5000) == 1, "waited for a datagram in vain");
    std::array<char, 65536> bytes;
    const ssize_t size = recv(socket.get(), bytes.data(), bytes.size(), 0);
    check(size >= 0, "recv");
    std::string datagram(bytes.data(), static_cast<size_t>(size));
    if (datagram == last) return datagrams;
    datagrams.push_back(std::move(datagram));
  }
}
