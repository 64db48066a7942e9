#include <dirent.h>
#include <linux/capability.h>
#include <malloc.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>

#include "lumen/services/system/netfilter/NetlinkFlows.h"
#include "services/nat/NatKernelFixture.h"
#include "support/LogCapture.h"
#include "support/RefusedCall.h"

namespace lumen::test {

namespace {

using namespace std::chrono_literals;

/// Runs `work` in a thread that may do nothing to the network.
void withoutPrivilege(const std::function<void()>& work) {
  std::thread([&] {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct nothing[_LINUX_CAPABILITY_U32S_3] = {};
    ASSERT_EQ(syscall(SYS_capset, &header, nothing), 0);
    work();
  }).join();
}

constexpr const char* listMap = "list map ip lumen forwards";

// Also proves [kernel-element].
TEST_F(NatKernelTest, HoldsAnElementForEachOpenPort) {
  opensTable();
  EXPECT_EQ(whyNot(map->add(rule(key))), "");
  EXPECT_NE(
      seenByAnotherProgram(listMap).find("45.45.45.1 . " + listed(IPPROTO_TCP) +
                                         " . 8080 counter packets 0 bytes 0 : 192.168.88.10 . 80"),
      std::string::npos);
  EXPECT_EQ(whyNot(map->remove({rule(key)})), "");
  EXPECT_EQ(seenByAnotherProgram(listMap).find("45.45.45.1"), std::string::npos);
}

TEST_F(NatKernelTest, ReportsWhyItRefuses) {
  opensTable();
  EXPECT_EQ(whyNot(map->add(rule(key))), "");
  EXPECT_EQ(whyNot(map->add(rule(key, 81))), "File exists");
  EXPECT_EQ(whyNot(map->remove({rule(key), rule({key.external, 17})})),
            "No such file or directory");
  EXPECT_NE(seenByAnotherProgram(listMap).find("192.168.88.10 . 80"), std::string::npos)
      << "the transaction did nothing";
}

// Promise: All ports of a program are closed in one transaction, however many it has.
TEST_F(NatKernelTest, RemovesThousandsOfElementsOrNone) {
  opensTable();
  std::vector<Rule> rules;
  for (uint16_t port = 10000; port < 13000; ++port) {
    rules.push_back(rule({{key.external.address, port}, key.protocol}));
    ASSERT_EQ(whyNot(map->add(rules.back())), "");
  }
  rules.push_back(rule({key.external, 17}));
  EXPECT_EQ(whyNot(map->remove(rules)), "No such file or directory");
  EXPECT_EQ(map->uses()->size(), 3000U);
  rules.pop_back();
  EXPECT_EQ(whyNot(map->remove(rules)), "");
  EXPECT_EQ(map->uses()->size(), 0U);
}

TEST_F(NatKernelTest, FreesWhatItHasReadAndGoesOn) {
  opensTable();
  EXPECT_EQ(whyNot(map->add(rule(key))), "");
  EXPECT_TRUE(nftables->run(listMap).ok());
  const size_t before = mallinfo2().uordblks;
  nftables->forget();
  // Most of it is pointers. A sanitizer counts for itself.
  const size_t least = 50000 * sizeof(void*);
  EXPECT_TRUE(before == 0 || mallinfo2().uordblks + least < before)
      << before << " bytes before, " << mallinfo2().uordblks << " after";
  EXPECT_EQ(*map->uses(rule(key)), 0U);
  EXPECT_EQ(whyNot(map->remove({rule(key)})), "");
  LibNftables unused;
  unused.forget();
  EXPECT_TRUE(unused.run("list tables").ok());
}

TEST_F(NatKernelTest, KeepsTheCounterOverAChange) {
  opensTable();
  ASSERT_TRUE(nftables
                  ->run("add element ip lumen forwards { 45.45.45.1 . tcp . 8080 counter packets 7 "
                        "bytes 900 : 192.168.88.10 . 80 }")
                  .ok());
  EXPECT_EQ(whyNot(map->change(rule(key), rule(key, 81))), "");
  EXPECT_NE(seenByAnotherProgram(listMap).find(
                "45.45.45.1 . " + listed(IPPROTO_TCP) +
                " . 8080 counter packets 7 bytes 900 : 192.168.88.10 . 81"),
            std::string::npos);
}

TEST_F(NatKernelTest, ReadsHowOftenAPortWasUsed) {
  opensTable();
  const RuleKey udp{.external = key.external, .protocol = 17};
  ASSERT_EQ(whyNot(map->add(rule(udp))), "");
  ASSERT_TRUE(nftables
                  ->run("add element ip lumen forwards { 45.45.45.1 . tcp . 8080 counter packets 7 "
                        "bytes 900 : 192.168.88.10 . 80 }")
                  .ok());
  EXPECT_EQ(*map->uses(), (std::map<RuleKey, uint64_t>{{key, 7}, {udp, 0}}));
  EXPECT_EQ(*map->uses(rule(key)), 7U);
}

TEST_F(NatKernelTest, HoldsAnElementForEachRemoteNetwork) {
  opensTable();
  EXPECT_TRUE(map->hasRemotes());
  Rule narrow = rule(key);
  narrow.remotes = {*Ipv4Network::parse("198.51.100.0/24"), *Ipv4Network::parse("203.0.113.7")};
  EXPECT_EQ(whyNot(map->add(narrow)), "");
  const std::string filtered = "list map ip lumen filtered";
  const std::string tcp = "45.45.45.1 . " + listed(IPPROTO_TCP) + " . 8080";
  const std::string seen = seenByAnotherProgram(filtered);
  EXPECT_NE(seen.find(tcp + " . 198.51.100.0/24 counter packets 0 bytes 0 : 192.168.88.10 . 80"),
            std::string::npos)
      << seen;
  EXPECT_NE(seen.find(tcp + " . 203.0.113.7 counter"), std::string::npos);
  EXPECT_EQ(seenByAnotherProgram(listMap).find(tcp), std::string::npos);

  Rule wide = narrow;
  wide.remotes = {*Ipv4Network::parse("198.51.0.0/16")};
  EXPECT_EQ(whyNot(map->change(narrow, wide)), "") << "it holds one of the networks before";
  EXPECT_EQ(whyNot(map->change(wide, narrow)), "");
  EXPECT_EQ(whyNot(map->change(narrow, rule(key, 81))), "");
  EXPECT_EQ(seenByAnotherProgram(filtered).find(tcp), std::string::npos);
  EXPECT_NE(seenByAnotherProgram(listMap).find(tcp), std::string::npos);
  EXPECT_EQ(whyNot(map->change(rule(key), narrow)), "");
  EXPECT_EQ(whyNot(map->remove({narrow})), "");
  EXPECT_EQ(*map->uses(), (std::map<RuleKey, uint64_t>{}));
}

TEST_F(NatKernelTest, AddsTheCountersOfAllRemoteNetworks) {
  opensTable();
  ASSERT_EQ(whyNot(nftables->run("add element ip lumen filtered { "
                                 "45.45.45.1 . tcp . 8080 . 10.0.0.0/8 counter packets 7 bytes 900 "
                                 ": 192.168.88.10 . 80, "
                                 "45.45.45.1 . tcp . 8080 . 11.0.0.0/8 counter packets 5 bytes 300 "
                                 ": 192.168.88.10 . 80 }")),
            "");
  Rule both = rule(key);
  both.remotes = {*Ipv4Network::parse("10.0.0.0/8"), *Ipv4Network::parse("11.0.0.0/8")};
  EXPECT_EQ(*map->uses(both), 12U);
  EXPECT_EQ(*map->uses(), (std::map<RuleKey, uint64_t>{{key, 12}}));
  EXPECT_EQ(whyNot(map->change(both, rule(key))), "");
  EXPECT_EQ(*map->uses(), (std::map<RuleKey, uint64_t>{{key, 12}}));
}

// Promise [kernel-owned]: No other program can change or flush the table, and `nft flush ruleset`
// leaves it out.
TEST_F(NatKernelTest, KeepsTheTableFromOtherPrograms) {
  opensTable();
  EXPECT_EQ(whyNot(map->add(rule(key))), "");
  LibNftables other;
  EXPECT_TRUE(other.run("flush ruleset").ok());
  for (const char* command :
       {"delete table ip lumen", "flush map ip lumen forwards", "flush chain ip lumen dstnat",
        "delete element ip lumen forwards { 45.45.45.1 . tcp . 8080 }"}) {
    EXPECT_FALSE(other.run(command).ok()) << command;
  }
  EXPECT_NE(seenByAnotherProgram(listMap).find("192.168.88.10 . 80"), std::string::npos);
  EXPECT_EQ(whyNot(map->remove({rule(key)})), "");
}

// Also proves [one-table].
TEST_F(NatKernelTest, RefusesASecondTableInTheSameNamespace) {
  opensTable();
  LibNftables other;
  EXPECT_EQ(whyNot(NatMap(other).open(NAT_RULESET_FILE)),
            "nftables table ip lumen exists already: another lumend runs in this network "
            "namespace, or another program made it");
}

// Promise [kernel-gone]: The table goes with lumend, however that ends.
TEST_F(NatKernelTest, RemovesTheTableAtItsEnd) {
  opensTable();
  EXPECT_EQ(whyNot(map->add(rule(key))), "");
  nftables.reset();
  EXPECT_TRUE(comesToHold([] { return seenByAnotherProgram("list tables ip").empty(); }));
}

// Also proves [kernel-gone].
TEST_F(NatKernelTest, RemovesTheTableWhenItsProcessIsKilled) {
  nftables.reset();
  pid_t child = fork();
  if (child == 0) {
    LibNftables childs;
    if (!NatMap(childs).open(NAT_RULESET_FILE)) _exit(1);
    for (;;) pause();
  }
  EXPECT_TRUE(
      comesToHold([] { return seenByAnotherProgram("list tables ip") == "table ip lumen\n"; }));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(comesToHold([] { return seenByAnotherProgram("list tables ip").empty(); }));
}

// Also proves [kernel-gone].
TEST_F(NatKernelTest, KeepsItsSocketFromChildren) {
  int sockets = 0;
  for (int fd = 3; fd < 1024; ++fd) {
    int protocol = -1;
    socklen_t size = sizeof protocol;
    if (getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) != 0) continue;
    ++sockets;
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  }
  EXPECT_EQ(sockets, 1);
}

// Promise: lumend uses no NAT table whose socket its services would inherit: `nftables socket: not
// found: Operation not permitted`.
TEST_F(NatKernelTest, IsNotUsedWhenChildrenWouldKeepItsSocket) {
  lm::test::LogCapture log;
  whileRefused({SCMP_SYS(getsockopt), SOL_SOCKET, SO_PROTOCOL}, EPERM, [] {
    LibNftables unusable;
    EXPECT_FALSE(unusable.run("list tables").ok());
    EXPECT_EQ(whyNot(unusable.runFile(NAT_RULESET_FILE)), "libnftables cannot be used");
  });
  EXPECT_EQ(log.text(), "nftables socket: not found: Operation not permitted\n");
}

TEST_F(NatKernelTest, NamesTheErrorInTheRulesetFile) {
  lm::test::TempDir directory;
  std::string missing = directory.file("missing.nft");
  std::string error = whyNot(map->open(missing));
  EXPECT_NE(error.find("Could not open file \"" + missing + "\": No such file or directory"),
            std::string::npos)
      << error;
  std::string broken = directory.file("broken.nft");
  directory.write("broken.nft", "table ip lumen {\n\tflags owner\n\tmop x\n}\n");
  error = whyNot(map->open(broken));
  EXPECT_NE(error.find(broken + ":3:2-4: Error: syntax error"), std::string::npos) << error;
  std::string unowned = directory.file("unowned.nft");
  directory.write("unowned.nft", "table ip lumen { }\n");
  EXPECT_EQ(whyNot(map->open(unowned)),
            "the NAT ruleset " + unowned + " does not make a table ip lumen with \"flags owner\"");
  EXPECT_EQ(seenByAnotherProgram("list tables ip"), "");
  opensTable();
}

// Promise [port-cost]: Opening a port costs the same with a hundred open ports and with five
// thousand.
TEST_F(NatKernelTest, ChangesCostTheSameWith5000Elements) {
  opensTable();
  // The fastest of a hundred, so that another program's work does not count.
  auto fastestAdd = [this](uint16_t first) {
    auto fastest = std::chrono::nanoseconds::max();
    for (uint16_t port = first; port < first + 100; ++port) {
      RuleKey one{.external = {.address = key.external.address, .port = port}, .protocol = 17};
      auto begin = std::chrono::steady_clock::now();
      EXPECT_EQ(whyNot(map->add(rule(one))), "");
      fastest =
          std::min<std::chrono::nanoseconds>(fastest, std::chrono::steady_clock::now() - begin);
    }
    return fastest;
  };
  auto early = fastestAdd(10000);
  std::string most = "add element ip lumen forwards { ";
  for (int port = 10100; port < 14900; ++port) {
    most += "45.45.45.1 . udp . " + std::to_string(port) + " : 192.168.88.10 . 80, ";
  }
  ASSERT_TRUE(nftables->run(most + " }").ok());
  auto late = fastestAdd(14900);
  RecordProperty("first_ns", std::to_string(early.count()));
  RecordProperty("last_ns", std::to_string(late.count()));
  EXPECT_LT(late, 2 * early);

  std::vector<Rule> all;
  for (uint16_t port = 10000; port < 15000; ++port) {
    all.push_back(rule({.external = {key.external.address, port}, .protocol = 17}));
  }
  EXPECT_EQ(whyNot(map->remove(all)), "") << "in one transaction";
  EXPECT_EQ(seenByAnotherProgram(listMap).find("45.45.45.1"), std::string::npos);
}

/// Real packets from a host on the WAN side.
class NatFlowsTest : public NatKernelTest, private FlowCleaner::OpenPorts {
 protected:
  NatFlowsTest() { opensTable(); }

  void opens(uint16_t port, const char* address = "45.45.45.1") { opensTo({}, port, address); }
  void opensTo(const Ipv4Networks& remotes, uint16_t port, const char* address = "45.45.45.1") {
    Rule opened = rule(udpKey(port, address));
    opened.remotes = remotes;
    EXPECT_EQ(whyNot(map->add(opened)), "");
    open[opened.key.external] = opened;
    cleaner.changed(opened.key.external);
  }
  void closes(uint16_t port, const char* address = "45.45.45.1") {
    const Endpoint external = udpKey(port, address).external;
    EXPECT_EQ(whyNot(map->remove({open.at(external)})), "");
    open.erase(external);
    cleaner.changed(external);
  }
  static void knocks(const lm::Fd& socket) {
    // The pending error of an earlier packet.
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    EXPECT_EQ(send(socket.get(), "x", 1, 0), 1);
  }
  int translated() {
    int count = 0;
    EXPECT_TRUE(flows.visitTranslated([&](const Flow& flow) {
      EXPECT_EQ(flow.responder, client);
      ++count;
    }));
    return count;
  }
  bool turnsUntil(const std::function<bool()>& condition) {
    return comesToHold([&] {
      loop.turn(10ms);
      return condition();
    });
  }
  static RuleKey udpKey(uint16_t port, const char* address = "45.45.45.1") {
    return {.external = {.address = ip(address), .port = port}, .protocol = 17};
  }

  std::map<Endpoint, Rule> open;
  WanHost host;
  lm::SystemClock clock;
  lm::EventLoop loop{clock};
  NetlinkFlows flows;
  lm::test::TempDir directory;
  FlowMarks marks{directory.path()};
  FlowCleaner cleaner{flows, *this, marks, clock};

 private:
  [[nodiscard]] std::optional<Endpoint> udpClient(const Endpoint& external,
                                                  Ipv4Address remote) const override {
    const auto rule = open.find(external);
    if (rule == open.end() || !rule->second.admits(remote)) return std::nullopt;
    return client;
  }
  [[nodiscard]] bool isUdpOpen(const Endpoint& external) const override {
    return open.contains(external);
  }
};

TEST_F(NatFlowsTest, FreesAFlowThatWasStuckAndEndsItWhenThePortIsClosed) {
  lm::Fd socket = host.udpSocket(4000, 8080);
  lm::Fd neighbour = host.udpSocket(4001, 8081);
  knocks(socket);
  knocks(neighbour);
  EXPECT_EQ(translated(), 0);

  opens(8080);
  opens(8081);
  EXPECT_TRUE(turnsUntil([&] {
    knocks(socket);
    knocks(neighbour);
    return translated() == 2;
  }));

  closes(8080);
  EXPECT_TRUE(turnsUntil([&] { return translated() == 1; })) << "the other port's flow stays";
  knocks(socket);
  knocks(neighbour);
  EXPECT_EQ(translated(), 1);
}

// Promise: An element counts the first packet of each flow, and a flow to it is one of the port's
// connections.
TEST_F(NatFlowsTest, CountsTheFirstPacketOfEachFlow) {
  opens(8080);
  for (uint16_t port = 4000; port < 4003; ++port) knocks(host.udpSocket(port, 8080));
  EXPECT_TRUE(comesToHold([&] { return translated() == 3; }));
  EXPECT_EQ(whyNot(map->change(rule(udpKey(8080)), rule(udpKey(8080)))), "");
  std::string seen = seenByAnotherProgram(listMap);
  EXPECT_NE(seen.find("45.45.45.1 . " + listed(IPPROTO_UDP) + " . 8080 counter packets 3 "),
            std::string::npos)
      << seen;
}

// Promise: Packets from a remote host that a rule does not admit are not translated, and closing
// the rule ends the flows that it admitted alone.
TEST_F(NatFlowsTest, PassThroughARuleFromItsRemoteNetworksAlone) {
  // A program of the router, which remote hosts that the rule does not admit go on talking to.
  const lm::Fd router(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(8080);
  address.sin_addr.s_addr = inet_addr("45.45.45.1");
  ASSERT_EQ(bind(router.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const lm::Fd admitted = host.udpSocket(4000, 8080, "45.45.45.1", "45.45.45.8");
  const lm::Fd other = host.udpSocket(4000, 8080, "45.45.45.1", "45.45.45.7");
  const auto flowsOf = [](const std::string& source) {
    std::ifstream table("/proc/net/nf_conntrack");
    int count = 0;
    for (std::string line; std::getline(table, line);) {
      count += line.find("src=" + source + " dst=45.45.45.1 ") != std::string::npos ? 1 : 0;
    }
    return count;
  };
  knocks(other);
  knocks(admitted);
  opensTo({*Ipv4Network::parse("45.45.45.8")}, 8080);
  EXPECT_TRUE(turnsUntil([&] {
    knocks(admitted);
    return translated() == 1;
  })) << "the flow from before was freed";
  knocks(other);
  EXPECT_EQ(translated(), 1);
  EXPECT_EQ(flowsOf("45.45.45.7"), 1) << "nor was it ended";
  char bytes[8];
  for (int i = 0; i < 2; ++i) EXPECT_EQ(recv(router.get(), bytes, sizeof bytes, 0), 1);

  closes(8080);
  EXPECT_TRUE(turnsUntil([&] { return translated() == 0 && cleaner.idle(); }));
  EXPECT_EQ(flowsOf("45.45.45.7"), 1);
}

// Also proves [flows-end].
TEST_F(NatFlowsTest, EndsManyFlowsOfManyPorts) {
  std::vector<lm::Fd> sockets;
  for (uint16_t port = 5000; port < 5010; ++port) {
    opens(port);
    for (uint16_t from = 0; from < 50; ++from) {
      sockets.push_back(
          host.udpSocket(static_cast<uint16_t>(20000 + 100 * (port - 5000) + from), port));
      knocks(sockets.back());
    }
  }
  EXPECT_TRUE(turnsUntil([&] {
    for (const lm::Fd& socket : sockets) knocks(socket);
    return translated() == 500;
  })) << translated();
  for (uint16_t port = 5000; port < 5009; ++port) closes(port);
  EXPECT_TRUE(turnsUntil([&] { return translated() == 50; }));
}

// Also proves [flows-end].
TEST_F(NatFlowsTest, EndsFlowsToTwoAddressesInOneSweep) {
  const lm::Fd first = host.udpSocket(4000, 8080);
  const lm::Fd second = host.udpSocket(4001, 9090, "45.45.45.2");
  const lm::Fd third = host.udpSocket(4002, 9091, "45.45.45.2");
  opens(8080);
  opens(9090, "45.45.45.2");
  opens(9091, "45.45.45.2");
  EXPECT_TRUE(turnsUntil([&] {
    for (const lm::Fd* socket : {&first, &second, &third}) knocks(*socket);
    return translated() == 3;
  }));
  closes(8080);
  closes(9090, "45.45.45.2");
  EXPECT_TRUE(turnsUntil([&] { return translated() == 1; }));
}

// Promise: Flows that cannot be read or ended are logged, `conntrack dump: Operation not
// permitted`, and delay no request.
TEST_F(NatFlowsTest, LogsWhyFlowsCannotBeRead) {
  const auto visits = [this] { return flows.visitTranslated([](const Flow&) {}); };
  lm::test::LogCapture log;
  for (const int call : {SCMP_SYS(socket), SCMP_SYS(bind), SCMP_SYS(sendto), SCMP_SYS(recvmsg)}) {
    whileRefused({call}, EIO, [&] { EXPECT_FALSE(visits()); });
  }
  withoutPrivilege([&] { EXPECT_FALSE(visits()); });
  EXPECT_EQ(log.text(),
            "conntrack socket: Input/output error\n"
            "conntrack socket: Input/output error\n"
            "conntrack dump: Input/output error\n"
            "conntrack dump: Input/output error\n"
            "conntrack dump: Operation not permitted\n");
  EXPECT_TRUE(visits());
}

TEST_F(NatFlowsTest, EndsASweepThatCannotBegin) {
  class Once : public Flows::Sweeper {
   public:
    bool ends(const Flow&) override { return false; }
    void swept(bool complete) override {
      ++times;
      EXPECT_FALSE(complete);
    }
    int times = 0;
  } sweeper;
  lm::test::LogCapture log;
  whileRefused({SCMP_SYS(sendto)}, EIO, [&] { flows.sweepUdp({udpKey(8080).external}, sweeper); });
  EXPECT_EQ(sweeper.times, 0) << "it is notified from the loop";
  EXPECT_TRUE(turnsUntil([&] { return sweeper.times == 1; }));
  whileRefused({SCMP_SYS(socket)}, EMFILE,
               [&] { flows.sweepUdp({udpKey(8080).external}, sweeper); });
  EXPECT_TRUE(turnsUntil([&] { return sweeper.times == 2; }));
  EXPECT_EQ(log.text(),
            "conntrack dump: Input/output error\n"
            "conntrack socket: Too many open files\n"
            "conntrack socket: Too many open files\n");
}

TEST_F(NatFlowsTest, LogsThatAFlowCannotBeEnded) {
  const lm::Fd socket = host.udpSocket(4000, 8080);
  opens(8080);
  EXPECT_TRUE(turnsUntil([&] {
    knocks(socket);
    return translated() == 1;
  }));
  class Ender : public Flows::Sweeper {
   public:
    bool ends(const Flow&) override { return true; }
    void swept(bool isComplete) override {
      done = true;
      complete = isComplete;
    }
    bool done = false;
    bool complete = true;
  } ender;
  NetlinkFlows other;
  other.sweepUdp({udpKey(8080).external}, ender);
  lm::test::LogCapture log;
  whileRefused({SCMP_SYS(sendto)}, EIO,
               [&] { EXPECT_TRUE(turnsUntil([&] { return ender.done; })); });
  EXPECT_EQ(log.text(), "conntrack delete: Input/output error\n");
  EXPECT_FALSE(ender.complete);
  EXPECT_EQ(translated(), 1);
  ender.done = false;
  other.sweepUdp({udpKey(8080).external}, ender);
  EXPECT_TRUE(turnsUntil([&] { return ender.done; }));
  EXPECT_TRUE(ender.complete);
  EXPECT_EQ(translated(), 0);
}

// Promise: lumend may end while flows are being swept.
TEST_F(NatFlowsTest, AbandonsASweepWhenItIsDestroyed) {
  class IdleSweeper : public Flows::Sweeper {
    bool ends(const Flow&) override { return false; }
    void swept(bool) override { ADD_FAILURE(); }
  } idle;
  NetlinkFlows shortLived;
  shortLived.sweepUdp({udpKey(8080).external}, idle);
}

}  // namespace

}  // namespace lumen::test
