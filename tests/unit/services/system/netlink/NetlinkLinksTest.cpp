// The interface and address tables on the real kernel, in a network namespace of each test's own.
// Needs root.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>

#include "lumen/runtime/EventLoop.h"
#include "lumen/services/addresses/AddressTable.h"
#include "lumen/services/interfaces/InterfaceTable.h"
#include "lumen/services/system/netlink/NetlinkLinks.h"
#include "platform/Fd.h"
#include "platform/Keys.h"
#include "platform/wire/Interfaces.h"
#include "services/interfaces/RecordingNames.h"
#include "services/interfaces/RecordingNotifier.h"
#include "support/Ipv4Text.h"
#include "support/RefusedCall.h"
#include "support/TempDir.h"
#include "support/WhyNot.h"

namespace lumen {
namespace {

using namespace std::chrono_literals;

class NetlinkLinksTest : public testing::Test {
 protected:
  NetlinkLinksTest() {
    EXPECT_EQ(unshare(CLONE_NEWNET), 0) << "needs root";
    loop = std::make_unique<lm::EventLoop>(clock);
  }

  /// The tables start with what exists; the socket has a receive buffer of `receiveBuffer` bytes.
  void starts(int receiveBuffer = 4 * 1024 * 1024) {
    table.reset();
    links = std::make_unique<NetlinkLinks>(receiveBuffer);
    addressTable = std::make_unique<AddressTable>(notifier);
    table = std::make_unique<InterfaceTable>(*links, *addressTable, notifier, names, store.path(),
                                             clock);
    table->start();
    (void)notifier.take();
  }

  static void ip(const std::string& arguments) {
    EXPECT_EQ(std::system(("ip " + arguments).c_str()), 0) << arguments;
  }
  /// Many commands of `ip`, in one run of it.
  void ipBatch(const std::string& commands) {
    store.write("batch", commands);
    ip("-batch " + store.file("batch"));
  }
  static std::string outputOf(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    std::array<char, 4096> part{};
    while (pipe && fgets(part.data(), part.size(), pipe)) output += part.data();
    EXPECT_EQ(pipe ? pclose(pipe) : -1, 0) << command;
    return output;
  }

  /// A link and its other end "<name>-peer", both up. They run a little later, when the kernel has
  /// detected the carrier.
  static void hasPair(const std::string& name) {
    ip("link add " + name + " type veth peer name " + name + "-peer");
    ip("link set " + name + "-peer up");
    ip("link set " + name + " up");
  }

  /// Turns the loop until `condition` holds, at most five seconds.
  [[nodiscard]] bool waitFor(const std::function<bool()>& condition) {
    const auto end = clock.now() + 5s;
    while (!condition()) {
      if (clock.now() >= end) return false;
      loop->turn(50ms);
    }
    return true;
  }

  lm::message asks(uint32_t command, const lm::message& request) {
    return table->handle(administrator, command, request);
  }
  /// The interface's record; empty when it is not listed.
  lm::message recordOf(const std::string& name) {
    const lm::message page = asks(lm::cmd::list, {});
    for (const lm::message& m : page.get_message_array_ref(lm::key::records)) {
      if (m.get_string(lm::interfaces::key::name) == name) return m;
    }
    return {};
  }
  uint32_t idOf(const std::string& name) { return recordOf(name).get_u32(lm::key::objectId); }
  std::string stateOf(const std::string& name) {
    const lm::message m = recordOf(name);
    if (m.get_u32(lm::key::objectId) == 0) return "unlisted";
    if (m.get_u32(lm::interfaces::key::index) == 0) return "away";
    if (m.get_bool(lm::key::disabled)) return "down";
    return m.get_bool(lm::interfaces::key::running) ? "running" : "up";
  }
  [[nodiscard]] bool becomes(const std::string& name, const std::string& state) {
    return waitFor([&] { return stateOf(name) == state; });
  }
  /// Every address with the name of its interface: "wan0 45.45.45.2, ".
  std::string addresses() {
    std::string result;
    lm::message request;
    for (uint32_t cursor = 0; cursor != lm::none;) {
      request.insert_u32(lm::key::cursor, cursor);
      const lm::message page = addressTable->handle(administrator, lm::cmd::list, request);
      for (const lm::message& m : page.get_message_array_ref(lm::key::records)) {
        result +=
            nameOf(m.get_u32(0x08000005)) + text(m).substr(text(m).find(" address=") + 8) + ", ";
      }
      cursor = page.get_u32(lm::key::cursor, lm::none);
    }
    return result;
  }
  std::string nameOf(uint32_t id) {
    lm::message request;
    request.insert_u32(lm::key::objectId, id);
    return asks(lm::cmd::readObject, request).get_string(lm::interfaces::key::name);
  }
  void keeps(const std::string& name) {
    lm::message request;
    request.insert_string(lm::interfaces::key::name, name);
    request.insert_u32(lm::interfaces::key::role, lm::interfaces::roleExternal);
    EXPECT_FALSE(lm::isError(asks(lm::cmd::addObject, request)));
  }
  std::string setsDisabled(const std::string& name, bool disabled) {
    lm::message request;
    request.insert_u32(lm::key::objectId, idOf(name));
    request.insert_bool(lm::key::disabled, disabled);
    return text(asks(lm::cmd::setObject, request));
  }

  /// The routes that were made by hand, in all tables.
  static std::string staticRoutes() {
    return outputOf("ip -4 route show table all proto static") +
           outputOf("ip -6 route show table all proto static");
  }

  const Caller administrator{1, 0, "", true};
  lm::SystemClock clock;
  std::unique_ptr<lm::EventLoop> loop;
  lm::test::TempDir store;
  RecordingNotifier notifier;
  RecordingNames names;
  std::unique_ptr<NetlinkLinks> links;
  std::unique_ptr<AddressTable> addressTable;
  std::unique_ptr<InterfaceTable> table;
};

// Also proves [table-links].
TEST_F(NetlinkLinksTest, FindsTheLinksAndAddressesThatAreThere) {
  ip("link set lo up");
  hasPair("wan0");
  ip("link add lan0 type bridge");
  ip("addr add 45.45.45.2/24 dev wan0");
  ip("addr add 192.168.1.1/24 dev lan0");
  starts();
  EXPECT_EQ(stateOf("lo"), "unlisted");
  EXPECT_TRUE(becomes("wan0", "running"));
  EXPECT_EQ(stateOf("lan0"), "down");
  EXPECT_EQ(recordOf("wan0").get_u32(lm::interfaces::key::hardwareType), 1U);
  EXPECT_EQ(addresses(), "wan0=45.45.45.2 disabled=0, lan0=192.168.1.1 disabled=1, ");
}

// Promise: An interface is disabled when its link is not up, and running when the link is up and
// running.
TEST_F(NetlinkLinksTest, FollowsALinkFromItsBeginningToItsEnd) {
  starts();
  ip("link add wan0 type veth peer name far0");
  EXPECT_TRUE(becomes("wan0", "down"));
  ip("link set wan0 up");
  EXPECT_TRUE(becomes("wan0", "up"));
  ip("link set far0 up");
  EXPECT_TRUE(becomes("wan0", "running"));
  ip("link set far0 down");
  EXPECT_TRUE(becomes("wan0", "up"));
  ip("link set wan0 down");
  EXPECT_TRUE(becomes("wan0", "down"));
  ip("link del wan0");
  EXPECT_TRUE(becomes("wan0", "unlisted"));
}

TEST_F(NetlinkLinksTest, FollowsARenamedLinkWithItsAddresses) {
  hasPair("eth7");
  ip("addr add 45.45.45.2/24 dev eth7");
  starts();
  ip("link set eth7 down");
  ip("link set eth7 name wan0");
  ip("link set wan0 up");
  EXPECT_TRUE(becomes("wan0", "running"));
  EXPECT_EQ(stateOf("eth7"), "unlisted");
  EXPECT_EQ(addresses(), "wan0=45.45.45.2 disabled=0, ");
}

// Promise: A link that moves to another network namespace leaves the table.
TEST_F(NetlinkLinksTest, FollowsALinkThatMovesToAnotherNamespace) {
  hasPair("wan0");
  starts();
  const pid_t other = fork();
  if (other == 0) {
    _exit(unshare(CLONE_NEWNET) == 0 && raise(SIGSTOP) == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(other, &status, WUNTRACED), other);
  ASSERT_TRUE(WIFSTOPPED(status));
  ip("link set wan0 netns " + std::to_string(other));
  EXPECT_TRUE(becomes("wan0", "unlisted"));
  kill(other, SIGCONT);
  EXPECT_EQ(waitpid(other, &status, 0), other);
}

// Also proves [table-addresses].
TEST_F(NetlinkLinksTest, FollowsAddresses) {
  hasPair("wan0");
  starts();
  ip("addr add 45.45.45.2/24 dev wan0");
  ip("addr add 10.0.0.1 peer 10.0.0.2/32 dev wan0");
  EXPECT_TRUE(waitFor(
      [&] { return addresses() == "wan0=45.45.45.2 disabled=0, wan0=10.0.0.1 disabled=0, "; }));
  EXPECT_EQ(addressTable->interfaceTowards(test::ip("10.0.0.2")), idOf("wan0"));
  ip("addr del 45.45.45.2/24 dev wan0");
  EXPECT_TRUE(waitFor([&] { return addresses() == "wan0=10.0.0.1 disabled=0, "; }));
}

TEST_F(NetlinkLinksTest, FollowsTheAddressesOfTheLoopbackWithoutListingThem) {
  const auto own = [this](const char* address) { return addressTable->isOwn(test::ip(address)); };
  ip("addr add 192.168.88.53/32 dev lo");
  starts();
  EXPECT_TRUE(waitFor([&] { return own("192.168.88.53"); }));
  ip("addr add 192.168.88.54/32 dev lo");
  ip("addr del 192.168.88.53/32 dev lo");
  EXPECT_TRUE(waitFor([&] { return own("192.168.88.54") && !own("192.168.88.53"); }));
  EXPECT_EQ(addresses(), "");
}

TEST_F(NetlinkLinksTest, KeepsAPortThatLeavesItsBridge) {
  hasPair("wan0");
  ip("link add br0 type bridge");
  ip("link set wan0 master br0");
  starts();
  EXPECT_TRUE(becomes("wan0", "running"));
  (void)notifier.take();
  ip("link set wan0 nomaster");
  ip("link set br0 up");  // when this is reported, everything before has been
  EXPECT_TRUE(waitFor([&] { return stateOf("br0") != "down"; }));
  EXPECT_EQ(stateOf("wan0"), "running");
  for (const std::string& line : notifier.lines) {
    EXPECT_EQ(line.find("name=wan0"), std::string::npos) << line;
  }
}

// Also proves [link-counters].
TEST_F(NetlinkLinksTest, ReadsTheCountersOfALink) {
  hasPair("wan0");
  ip("addr add 45.45.45.2/24 dev wan0");
  ip("neigh add 45.45.45.9 lladdr 02:00:00:00:00:09 dev wan0");
  starts();
  const lm::Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = inet_addr("45.45.45.9");
  to.sin_port = htons(9);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(sendto(fd.get(), "hello", 5, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
              5);
  }
  lm::message request;
  request.insert_u32(lm::key::objectId, idOf("wan0"));
  // IPv6 sends now and then: read until nothing came between.
  std::string before;
  lm::message read;
  do {
    before = outputOf("cat /proc/net/dev");
    read = asks(lm::cmd::readObject, request);
  } while (outputOf("cat /proc/net/dev") != before);
  std::istringstream columns(before.substr(before.find("wan0:") + 5));
  std::array<uint64_t, 16> numbers{};
  for (uint64_t& number : numbers) columns >> number;
  EXPECT_EQ(read.get_u64(lm::interfaces::key::bytesReceived), numbers[0]);
  EXPECT_EQ(read.get_u64(lm::interfaces::key::packetsReceived), numbers[1]);
  EXPECT_EQ(read.get_u64(lm::interfaces::key::bytesSent), numbers[8]);
  EXPECT_EQ(read.get_u64(lm::interfaces::key::packetsSent), numbers[9]);
  EXPECT_GE(numbers[9], 3U);
}

// Also proves [routes-back].
TEST_F(NetlinkLinksTest, PutsTheRoutesBackThatWentDownWithTheLink) {
  hasPair("wan0");
  hasPair("lan0");
  ip("addr add 45.45.45.2/24 dev wan0");
  ip("-6 addr add 2001:db8::2/64 dev wan0 nodad");
  ip("route add default via 45.45.45.1 dev wan0 proto static metric 100 mtu 1400");
  ip("route add 46.46.46.1 dev wan0 proto static scope link src 45.45.45.2");
  ip("route add 47.0.0.0/8 via 46.46.46.1 dev wan0 proto static onlink");
  ip("route add 48.0.0.0/8 via 46.46.46.1 dev wan0 proto static table 1000");
  ip("route add 49.0.0.0/8 proto static nexthop via 45.45.45.1 dev wan0 weight 1 "
     "nexthop via 46.46.46.1 dev wan0 weight 5");
  ip("-6 route add default via 2001:db8::1 dev wan0 proto static");
  ip("-6 route add 2001:db8:1::/48 dev wan0 proto static metric 7");
  ip("route add 50.0.0.0/8 dev lan0 proto static");
  ip("-6 addr add 2001:db8:9::1/64 dev lan0 nodad");
  const std::string before = staticRoutes();
  // IPv6 addresses, and with them what their routes need, stay on a link that goes down.
  std::ofstream("/proc/sys/net/ipv6/conf/wan0/keep_addr_on_down") << "1";
  starts();

  EXPECT_EQ(setsDisabled("wan0", true), "");
  EXPECT_TRUE(becomes("wan0", "down"));
  EXPECT_EQ(staticRoutes(), "50.0.0.0/8 dev lan0 scope link \n");
  EXPECT_EQ(setsDisabled("wan0", false), "");
  EXPECT_TRUE(becomes("wan0", "running"));
  EXPECT_EQ(staticRoutes(), before);
}

TEST_F(NetlinkLinksTest, PutsTheRoutesOfAKeptNameBackByItsNextLink) {
  hasPair("ppp7");
  ip("route add 47.0.0.0/8 dev ppp7 proto static");
  starts();
  keeps("ppp7");
  EXPECT_EQ(setsDisabled("ppp7", true), "");
  ip("link del ppp7");
  EXPECT_TRUE(becomes("ppp7", "away"));
  hasPair("ppp7");
  EXPECT_TRUE(becomes("ppp7", "running"));
  EXPECT_EQ(staticRoutes(), "47.0.0.0/8 dev ppp7 scope link \n");
}

TEST_F(NetlinkLinksTest, RefusesALinkThatIsNotThere) {
  starts();
  EXPECT_EQ(whyNot(links->setUp(4711, true)), strerror(ENODEV));
  EXPECT_FALSE(links->read(4711));
  EXPECT_FALSE(links->routes(4711));
}

TEST_F(NetlinkLinksTest, RefusesARouteThatIsThereAndOneThatIsNone) {
  hasPair("wan0");
  ip("route add 47.0.0.0/8 dev wan0 proto static");
  starts();
  const uint32_t index = recordOf("wan0").get_u32(lm::interfaces::key::index);
  const auto routes = links->routes(index);
  ASSERT_TRUE(routes);
  ASSERT_EQ(routes->size(), 1U);
  EXPECT_EQ(links->addRoute(routes->front(), index), EEXIST);
  EXPECT_EQ(links->addRoute({index, false, "no route"}, index), EINVAL);
  EXPECT_EQ(links->routes(index)->size(), 1U) << "later answers still match their requests";
}

// Promise: Changes that the kernel had to drop are logged: `interfaces: changes were lost, reading
// everything again: No buffer space available`.
TEST_F(NetlinkLinksTest, ReadsEverythingAgainWhenTheKernelHadToDropChanges) {
  hasPair("wan0");
  ip("addr add 10.0.0.1/16 dev wan0");
  ip("addr add 10.0.0.2/16 dev wan0");
  starts(1);  // the kernel makes it a few hundred bytes
  std::string flood;
  for (int i = 0; i < 300; ++i) {
    flood += "addr add 10.1." + std::to_string(i / 100) + "." + std::to_string(i % 100 + 1) +
             "/16 dev wan0\n";
  }
  flood += "addr del 10.0.0.2/16 dev wan0\nlink set wan0 down\n";
  ipBatch(flood);

  testing::internal::CaptureStdout();
  EXPECT_TRUE(becomes("wan0", "down"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "interfaces: changes were lost, reading everything again: No buffer space available\n");
  size_t added = 0;
  size_t removed = 0;
  for (const lm::message& m : notifier.messages) {
    for (const lm::message& record : m.get_message_array_ref(lm::key::records)) {
      if (record.get_u32(0x08000005) == 0) continue;  // of an interface
      (record.get_u32(lm::key::removed) == 0 ? added : removed) += 1;
    }
  }
  EXPECT_EQ(removed, 1U);
  EXPECT_GE(added, 300U);
  EXPECT_EQ(addressTable->interfaceOf(test::ip("10.1.2.100")), idOf("wan0"));
  EXPECT_EQ(addressTable->interfaceOf(test::ip("10.0.0.2")), std::nullopt);

  // And changes are received again.
  ip("addr add 10.2.0.1/16 dev wan0");
  EXPECT_TRUE(waitFor([&] { return addressTable->interfaceOf(test::ip("10.2.0.1")).has_value(); }));
}

/// Takes the tables as they are read, and no change.
class Reading : public Links::Listener {
 public:
  void tablesRead(const LinkSnapshot& read) override { all = read; }
  void linkChanged(const Link& /*link*/) override {}
  void linkGone(uint32_t /*index*/) override {}
  void addressAdded(uint32_t /*index*/, const LinkAddress& /*address*/) override {}
  void addressRemoved(uint32_t /*index*/, const LinkAddress& /*address*/) override {}

  std::optional<LinkSnapshot> all;
};

// Promise: Reading the tables is retried until it succeeds, and the reason is logged: `interfaces:
// could not read the kernel's tables, trying again`.
TEST_F(NetlinkLinksTest, TriesAgainUntilTheTablesCanBeRead) {
  struct Case {
    RefusedCall call;
    int error;
    std::string why;  // the line that says so, if there is one
  };
  const Case cases[] = {
      {{SCMP_SYS(socket)}, EMFILE, "interfaces: netlink socket: Too many open files\n"},
      {{SCMP_SYS(setsockopt), SOL_NETLINK, NETLINK_GET_STRICT_CHK},
       EPERM,
       "interfaces: netlink socket: Operation not permitted\n"},
      {{SCMP_SYS(setsockopt), SOL_SOCKET, SO_RCVTIMEO},
       EPERM,
       "interfaces: netlink socket: Operation not permitted\n"},
      {{SCMP_SYS(bind)}, EPERM, "interfaces: netlink socket: Operation not permitted\n"},
      {{SCMP_SYS(sendto)}, EPERM, "interfaces: netlink request: Operation not permitted\n"},
      {{SCMP_SYS(recvmsg)}, EIO, "interfaces: netlink answer: Input/output error\n"},
      {{SCMP_SYS(recvmsg)},
       EAGAIN,
       "interfaces: netlink answer: Resource temporarily unavailable\n"},
      {{SCMP_SYS(recvmsg)}, ENOBUFS, ""},
  };
  hasPair("wan0");
  for (const Case& c : cases) {
    NetlinkLinks reader;
    Reading reading;
    testing::internal::CaptureStdout();
    whileRefused(c.call, c.error, [&] { reader.start(reading); });
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              c.why + "interfaces: could not read the kernel's tables, trying again\n");
    EXPECT_FALSE(reading.all);
    EXPECT_TRUE(waitFor([&] { return reading.all.has_value(); }));
    EXPECT_EQ(reading.all->links.size(), 3U) << "lo, wan0 and its other end";
  }
}

// Promise: A query that cannot reach the kernel fails, and the next one works.
TEST_F(NetlinkLinksTest, AnswersWhenTheKernelCannotBeAsked) {
  hasPair("wan0");
  starts();
  const uint32_t index = recordOf("wan0").get_u32(lm::interfaces::key::index);
  testing::internal::CaptureStdout();
  whileRefused({SCMP_SYS(socket)}, EMFILE, [&] { EXPECT_FALSE(links->read(index)); });
  whileRefused({SCMP_SYS(recvmsg)}, EIO, [&] {
    EXPECT_EQ(whyNot(links->setUp(index, true)), strerror(EIO));
    EXPECT_EQ(whyNot(links->routes(index)), "the link's routes could not be read");
  });
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "interfaces: netlink socket: Too many open files\n"
            "interfaces: netlink answer: Input/output error\n"
            "interfaces: netlink answer: Input/output error\n");
  EXPECT_TRUE(links->read(index)) << "an old answer is not taken for this one";
}

/// The ports of the netlink sockets in this network namespace that subscribe to links and
/// addresses.
std::set<uint32_t> portsOfSubscribers() {
  std::ifstream table("/proc/net/netlink");
  std::string line;
  std::getline(table, line);
  std::set<uint32_t> ports;
  while (std::getline(table, line)) {
    std::istringstream columns(line);
    std::string address;
    int protocol = -1;
    uint32_t port = 0;
    uint32_t groups = 0;
    columns >> address >> protocol >> port >> std::hex >> groups;
    if (protocol == NETLINK_ROUTE &&
        groups == (RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR)) {
      ports.insert(port);
    }
  }
  return ports;
}

TEST_F(NetlinkLinksTest, KnowsThePortOfItsSocket) {
  NetlinkSocket socket;
  ASSERT_TRUE(socket.open(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR, 0));
  EXPECT_EQ(portsOfSubscribers(), std::set<uint32_t>{socket.port()});
}

// Promise: What other programs send to lumend's netlink socket is ignored.
TEST_F(NetlinkLinksTest, IgnoresMessagesThatAreNotFromTheKernel) {
  hasPair("wan0");
  hasPair("lan0");
  starts();
  struct {
    nlmsghdr header{sizeof(nlmsghdr) + sizeof(ifinfomsg), RTM_DELLINK, 0, 0, 0};
    ifinfomsg link{};
  } gone;
  gone.link.ifi_index = static_cast<int>(recordOf("wan0").get_u32(lm::interfaces::key::index));
  const lm::Fd liar(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  const std::set<uint32_t> ports = portsOfSubscribers();
  ASSERT_EQ(ports.size(), 1U);
  sockaddr_nl to{};
  to.nl_family = AF_NETLINK;
  to.nl_pid = *ports.begin();
  ASSERT_EQ(
      sendto(liar.get(), &gone, sizeof gone, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
      static_cast<ssize_t>(sizeof gone));
  ip("link set lan0 down");  // when this is reported, everything before has been
  EXPECT_TRUE(becomes("lan0", "down"));
  EXPECT_EQ(stateOf("wan0"), "running");
}

// Promise: A table that changes while it is read is read again until it is complete.
TEST_F(NetlinkLinksTest, ReadsWholeTablesWhileTheyChange) {
  hasPair("wan0");
  // The kernel dumps addresses by position, in the order of their creation: removing one at the
  // start makes it skip another.
  std::string additions;
  std::string removals;
  const auto hostOf = [](int i) {
    return std::to_string(i / 250) + "." + std::to_string(i % 250) + "/32 dev wan0\n";
  };
  for (int i = 0; i < 4000; ++i) {
    additions += "addr add 10.1." + hostOf(i);
    removals += "addr del 10.1." + hostOf(i);
  }
  std::set<Ipv4Address> stable;
  for (int i = 0; i < 1000; ++i) {
    additions += "addr add 10.2." + hostOf(i);
    const std::string address = "10.2." + hostOf(i);
    stable.insert(test::ip(address.substr(0, address.find('/'))));
  }
  ipBatch(additions);
  store.write("removals", removals);
  const std::string file = store.file("removals");
  const pid_t changer = fork();
  if (changer == 0) {
    execlp("ip", "ip", "-batch", file.c_str(), nullptr);
    _exit(1);
  }
  int rounds = 0;
  int status = 0;
  for (; waitpid(changer, &status, WNOHANG) == 0; ++rounds) {
    NetlinkLinks reader;
    Reading reading;
    reader.start(reading);
    ASSERT_TRUE(waitFor([&] { return reading.all.has_value(); }));
    std::set<Ipv4Address> missing = stable;
    for (const auto& [index, held] : reading.all->addresses) {
      for (const LinkAddress& address : held) missing.erase(address.address);
    }
    ASSERT_TRUE(missing.empty()) << missing.size() << " addresses in round " << rounds;
  }
  EXPECT_EQ(status, 0);
  EXPECT_GT(rounds, 0);
}

}  // namespace
}  // namespace lumen
