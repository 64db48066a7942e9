#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "base/Text.h"
#include "net/Address.h"
#include "net/Sockets.h"
#include "platform/Fd.h"
#include "support/Descriptors.h"
#include "support/Logged.h"
#include "support/PrivateNetwork.h"
#include "support/RefusedCall.h"

using lm::test::openDescriptors;

/// Makes sockets on "lo" and looks at them from outside.
class SocketsTest : public testing::Test {
 protected:
  /// What was logged by the last maker.
  std::string log;

  using Maker = std::function<int()>;

  lm::Fd make(const Maker& maker) {
    lm::Fd fd;
    log = lm::test::logged([&] { fd.reset(maker()); });
    return fd;
  }

  /// The maker must fail and leave nothing open.
  void expectFailure(const Maker& maker, const std::string& line) {
    const size_t before = openDescriptors();
    const lm::Fd fd = make(maker);
    EXPECT_EQ(fd.get(), -1) << line;
    EXPECT_EQ(log, line + "\n");
    EXPECT_EQ(openDescriptors(), before) << line;
  }

  void expectFailureWhileRefused(const RefusedCall& call, const Maker& maker,
                                 const std::string& line) {
    whileRefused(call, EPERM, [&] { expectFailure(maker, line + ": Operation not permitted"); });
  }

  static int udp() { return makeUdpSocket("lo"); }
  static int discovery() { return makeDiscoverySocket("lo", loIndex(), strtoip("127.0.0.1")); }
  static int tcp() { return makeTcpSocket("lo", 2828); }

  static unsigned loIndex() { return if_nametoindex("lo"); }

  static int option(const lm::Fd& fd, int level, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(getsockopt(fd.get(), level, name, &value, &length), 0);
    return value;
  }

  static std::string device(const lm::Fd& fd) {
    std::array<char, IFNAMSIZ> name = {};
    socklen_t length = name.size();
    EXPECT_EQ(getsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, name.data(), &length), 0);
    return name.data();
  }

  static std::string boundTo(const lm::Fd& fd) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    return iptostr(address.sin_addr.s_addr) + ":" + uinttostr(ntohs(address.sin_port));
  }

  /// How many connections may wait on a listening socket.
  static unsigned backlog(const lm::Fd& fd) {
    tcp_info info = {};
    socklen_t length = sizeof info;
    EXPECT_EQ(getsockopt(fd.get(), IPPROTO_TCP, TCP_INFO, &info, &length), 0);
    return info.tcpi_sacked;  // what the kernel keeps there while a socket listens
  }

  static bool closedOnExec(const lm::Fd& fd) {
    return (fcntl(fd.get(), F_GETFD) & FD_CLOEXEC) != 0;
  }
  static bool blocks(const lm::Fd& fd) { return (fcntl(fd.get(), F_GETFL) & O_NONBLOCK) == 0; }

 private:
  PrivateNetwork network;
};

// Promise [device-bound]: Every socket is bound to one network device before it is used: the daemon
// receives and answers on its internal interfaces and on no other.
// Promise: Every socket is closed on exec.
TEST_F(SocketsTest, MakesAUdpSocketOfOneDevice) {
  const lm::Fd fd = make(udp);
  ASSERT_TRUE(fd.valid());
  EXPECT_EQ(option(fd, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  EXPECT_EQ(device(fd), "lo");
  EXPECT_TRUE(closedOnExec(fd));
  EXPECT_EQ(log, "");
}

// Promise [ssdp-port]: SSDP is received on UDP port 1900 of any address of the interface.
// Promise [ssdp-ttl]: Multicast datagrams go out with a time to live of 4, through the interface
// that the socket is bound to, and loop back to this host.
// Also proves [device-bound], [ssdp-port-shared].
TEST_F(SocketsTest, MakesADiscoverySocket) {
  const lm::Fd fd = make(discovery);
  ASSERT_TRUE(fd.valid());
  EXPECT_EQ(option(fd, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  EXPECT_EQ(device(fd), "lo");
  EXPECT_EQ(boundTo(fd), "0.0.0.0:1900");
  EXPECT_EQ(option(fd, SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_EQ(option(fd, IPPROTO_IP, IP_MULTICAST_TTL), 4);
  EXPECT_EQ(option(fd, IPPROTO_IP, IP_MULTICAST_LOOP), 1) << "the default";
  EXPECT_EQ(option(fd, IPPROTO_IP, IP_MULTICAST_IF), 0) << "the default";
  EXPECT_TRUE(closedOnExec(fd));
  EXPECT_EQ(log, "");
}

// Promise [ssdp-group]: SSDP is received in the multicast group `239.255.255.250`, which is joined
// on the interface of the given index.
TEST_F(SocketsTest, JoinsTheGroupOfSsdp) {
  const lm::Fd fd = make(discovery);
  const lm::Fd sender = make(udp);
  sockaddr_in group = {};
  group.sin_family = AF_INET;
  group.sin_addr.s_addr = inet_addr(SSDP_IP);
  group.sin_port = htons(SSDP_PORT);
  ASSERT_EQ(sendto(sender.get(), "hi", 2, 0, reinterpret_cast<sockaddr*>(&group), sizeof group), 2);
  std::array<char, 8> bytes;
  EXPECT_EQ(recv(fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT), 2);
}

// Promise [ssdp-port-shared]: The SSDP port is shared with other programs that share it.
TEST_F(SocketsTest, SharesTheSsdpPort) {
  const lm::Fd one = make(discovery);
  const lm::Fd other = make(discovery);
  EXPECT_TRUE(one.valid() && other.valid());
}

// Promise [http-port]: HTTP is served on TCP port 2828 of any address of the interface.
// Promise: A port that is still in use by closed connections is served again at once.
// Promise [backlog]: One connection waits while another is accepted: the backlog is 1.
// Also proves [device-bound].
TEST_F(SocketsTest, MakesAListeningSocket) {
  const lm::Fd fd = make(tcp);
  ASSERT_TRUE(fd.valid());
  EXPECT_EQ(option(fd, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_EQ(option(fd, SOL_SOCKET, SO_ACCEPTCONN), 1);
  EXPECT_EQ(device(fd), "lo");
  EXPECT_EQ(boundTo(fd), "0.0.0.0:2828");
  EXPECT_EQ(option(fd, SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_TRUE(closedOnExec(fd));
  EXPECT_EQ(backlog(fd), 1U);
  EXPECT_TRUE(blocks(fd));
  EXPECT_EQ(log, "");
}

TEST_F(SocketsTest, ServesThePortOfTheArgument) {
  const lm::Fd fd = make([] { return makeTcpSocket("lo", DEFAULT_HTTP_PORT); });
  EXPECT_EQ(boundTo(fd), "0.0.0.0:80");
}

TEST_F(SocketsTest, FailsOnADeviceThatDoesNotExist) {
  expectFailure([] { return makeUdpSocket("none0"); },
                "udp setsockopt SO_BINDTODEVICE: No such device");
  expectFailure([] { return makeDiscoverySocket("none0", 1, 0); },
                "udp setsockopt SO_BINDTODEVICE: No such device");
  expectFailure([] { return makeTcpSocket("none0", 2828); },
                "setsockopt SO_BINDTODEVICE: No such device");
}

// Promise [link-name]: An interface name of 16 characters or more is handed to the system without
// its end and shows as a failure to bind to the device.
TEST_F(SocketsTest, LetsTheSystemRefuseALongName) {
  // 16 bytes and more leave no room for the zero; the kernel cuts such a name to 15 bytes.
  expectFailure([] { return makeUdpSocket("abcdefghijklmnop"); },
                "udp setsockopt SO_BINDTODEVICE: No such device");
  expectFailure([] { return makeTcpSocket(std::string(1000, 'a'), 2828); },
                "setsockopt SO_BINDTODEVICE: No such device");
}

// Promise: An empty interface name is passed to the system unchanged.
TEST_F(SocketsTest, PassesAnEmptyNameToTheSystem) {
  // Which takes it for "no device".
  const lm::Fd fd = make([] { return makeUdpSocket(""); });
  EXPECT_TRUE(fd.valid());
  EXPECT_EQ(device(fd), "");
}

// Promise: A socket that the system does not give is a line in the log, `udp socket: ` or `tcp
// socket: ` and the system's error text, and no socket.
TEST_F(SocketsTest, FailsWhenTheSystemHasNoSocket) {
  const RefusedCall call{SCMP_SYS(socket)};
  expectFailureWhileRefused(call, udp, "udp socket");
  expectFailureWhileRefused(call, discovery, "udp socket");
  expectFailureWhileRefused(call, tcp, "tcp socket");
}

// Promise: A device that cannot be bound to is a line in the log, `udp setsockopt SO_BINDTODEVICE:
// ` or, for TCP, `setsockopt SO_BINDTODEVICE: ` and the error text, and no socket.
// Promise: Without the right to bind to a device there is no socket: an unbound one is never used
// in its place.
TEST_F(SocketsTest, FailsWhenItMayNotBindToADevice) {
  const RefusedCall call{SCMP_SYS(setsockopt), SOL_SOCKET, SO_BINDTODEVICE};
  expectFailureWhileRefused(call, udp, "udp setsockopt SO_BINDTODEVICE");
  expectFailureWhileRefused(call, discovery, "udp setsockopt SO_BINDTODEVICE");
  expectFailureWhileRefused(call, tcp, "setsockopt SO_BINDTODEVICE");
}

// Promise: An address that cannot be shared is the line `setsockopt SO_REUSEADDR: ` and the error
// text, and no socket.
// Promise: A socket that fails half-way is closed again.
TEST_F(SocketsTest, FailsWhenTheAddressCannotBeReused) {
  const RefusedCall call{SCMP_SYS(setsockopt), SOL_SOCKET, SO_REUSEADDR};
  expectFailureWhileRefused(call, discovery, "setsockopt SO_REUSEADDR");
  expectFailureWhileRefused(call, tcp, "setsockopt SO_REUSEADDR");
}

// Promise: A port that cannot be had is the line `udp bind: ` or `tcp bind: ` and the error text,
// and no socket.
TEST_F(SocketsTest, FailsWhenItCannotBind) {
  const RefusedCall call{SCMP_SYS(bind)};
  expectFailureWhileRefused(call, discovery, "udp bind");
  expectFailureWhileRefused(call, tcp, "tcp bind");
}

// Promise: A time to live that cannot be set is the line `setsockopt IP_MULTICAST_TTL: ` and the
// error text, and no socket.
TEST_F(SocketsTest, FailsWhenTheTimeToLiveCannotBeSet) {
  expectFailureWhileRefused({SCMP_SYS(setsockopt), IPPROTO_IP, IP_MULTICAST_TTL}, discovery,
                            "setsockopt IP_MULTICAST_TTL");
}

// Promise: A port that cannot be listened on is the line `tcp listen: ` and the error text, and no
// socket.
TEST_F(SocketsTest, FailsWhenItCannotListen) {
  expectFailureWhileRefused({SCMP_SYS(listen)}, tcp, "tcp listen");
}

// Promise: A multicast group that cannot be joined is the line `setsockopt IP_ADD_MEMBERSHIP: ` and
// the error text, and no socket.
// Also proves [ssdp-group].
TEST_F(SocketsTest, FailsOnAnInterfaceIndexThatDoesNotExist) {
  expectFailure([] { return makeDiscoverySocket("lo", 4711, 0); },
                "setsockopt IP_ADD_MEMBERSHIP: No such device");
}

TEST_F(SocketsTest, FailsOnAPortThatIsTaken) {
  const lm::Fd first = make(tcp);
  expectFailure(tcp, std::string("tcp bind: ") + strerror(EADDRINUSE));
}

/// A connection to a peer on loopback, and what writeOnce does with it.
class WriteOnceTest : public SocketsTest {
 protected:
  WriteOnceTest() : listener(make(tcp)), peer(connected()) {
    connection.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_TRUE(connection.valid());
  }

  /// The result of one writeOnce; `log` has what it logged.
  bool writes(std::string_view text) {
    bool all = false;
    log = lm::test::logged([&] { all = writeOnce(connection.get(), text); });
    return all;
  }

  /// Of a last text, after which the connection is closed.
  bool writesLast(std::string_view text) {
    bool all = false;
    log = lm::test::logged([&] { all = writeLast(connection.get(), text); });
    connection.reset();
    return all;
  }

  /// How many packets the peer has received.
  [[nodiscard]] uint32_t packets() const {
    tcp_info info = {};
    socklen_t length = sizeof info;
    EXPECT_EQ(getsockopt(peer.get(), IPPROTO_TCP, TCP_INFO, &info, &length), 0);
    return info.tcpi_segs_in;
  }

  void makeBufferSmall() {
    const int size = 1;
    EXPECT_EQ(setsockopt(connection.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size), 0);
  }

  std::string received() const {
    std::array<char, 65536> bytes;
    const ssize_t size = recv(peer.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    return size < 0 ? "" : std::string(bytes.data(), static_cast<size_t>(size));
  }

  static lm::Fd connected() {
    lm::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(2828);
    server.sin_addr.s_addr = strtoip("127.0.0.1");
    EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&server), sizeof server), 0);
    return fd;
  }

  lm::Fd listener;
  lm::Fd peer;
  lm::Fd connection;
};

TEST_F(WriteOnceTest, WritesAllOfAText) {
  EXPECT_TRUE(writes("hello"));
  EXPECT_EQ(received(), "hello");
  EXPECT_EQ(log, "");
}

TEST_F(WriteOnceTest, DoesNotTryAgainWhenTheWriteIsInterrupted) {
  alarm(10);  // ends the test if it tries again and again
  whileRefused({SCMP_SYS(sendto)}, EINTR, [&] { EXPECT_FALSE(writes("hello")); });
  alarm(0);
  EXPECT_EQ(received(), "");
  EXPECT_EQ(log, "");
}

TEST_F(WriteOnceTest, EnlargesTheBufferForWhatItDoesNotTakeAtOnce) {
  const std::string text(100'000, 'x');
  makeBufferSmall();
  EXPECT_TRUE(writes(text));
  EXPECT_GE(option(connection, SOL_SOCKET, SO_SNDBUF), 100'000);
  EXPECT_EQ(log, "");
  std::string all;
  pollfd arriving{peer.get(), POLLIN, 0};
  while (all.size() < text.size() && poll(&arriving, 1, 5000) == 1) all += received();
  EXPECT_EQ(all, text);
}

TEST_F(WriteOnceTest, FailsWhenTheBufferCannotBeEnlarged) {
  const struct {
    int option;
    const char* line;
  } rows[] = {
      {SO_SNDBUF, "setsockopt SO_SNDBUF: Operation not permitted\n"},
      {SO_SNDTIMEO, "setsockopt SO_SNDTIMEO: Operation not permitted\n"},
  };
  makeBufferSmall();
  for (const auto& [name, line] : rows) {
    whileRefused({SCMP_SYS(setsockopt), SOL_SOCKET, name}, EPERM,
                 [&] { EXPECT_FALSE(writes(std::string(1'000'000, 'x'))); });
    EXPECT_EQ(log, line);
  }
}

TEST_F(WriteOnceTest, SurvivesAPeerThatIsGone) {
  const linger atOnce = {1, 0};
  setsockopt(peer.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  peer.reset();
  EXPECT_FALSE(writes("hello")) << "a reset";
  EXPECT_FALSE(writes("hello")) << "without a signal";
}

TEST_F(WriteOnceTest, SendsALastTextAndItsEndInOnePacket) {
  const uint32_t before = packets();
  EXPECT_TRUE(writesLast(std::string(1400, 'x')));
  pollfd ended{peer.get(), POLLRDHUP, 0};
  EXPECT_EQ(poll(&ended, 1, 5000), 1);
  EXPECT_EQ(packets(), before + 1);
  EXPECT_EQ(received(), std::string(1400, 'x'));
  EXPECT_EQ(received(), "") << "the end, not an error";
  EXPECT_EQ(log, "");
}

TEST_F(WriteOnceTest, WritesAllOfALastTextThatIsLong) {
  const std::string text(100'000, 'x');
  makeBufferSmall();
  EXPECT_TRUE(writesLast(text));
  std::string all;
  pollfd arriving{peer.get(), POLLIN, 0};
  while (all.size() < text.size() && poll(&arriving, 1, 5000) == 1) all += received();
  EXPECT_EQ(all, text);
  EXPECT_EQ(log, "");
}

// Also proves [reply-unread].
TEST_F(WriteOnceTest, DropsAConnectionThatIsNotReadForTenSeconds) {
  EXPECT_EQ(lm::test::logged([&] { dropWhenUnread(connection.get()); }), "");
  EXPECT_EQ(option(connection, IPPROTO_TCP, TCP_USER_TIMEOUT), 10000);
  whileRefused({SCMP_SYS(setsockopt), IPPROTO_TCP, TCP_USER_TIMEOUT}, EPERM, [&] {
    EXPECT_EQ(lm::test::logged([&] { dropWhenUnread(connection.get()); }),
              "setsockopt TCP_USER_TIMEOUT: Operation not permitted\n");
  });
}

// Also proves [reply-unread].
TEST_F(WriteOnceTest, HasTheLimitOfTheSocketThatAcceptedTheConnection) {
  dropWhenUnread(listener.get());
  const lm::Fd other = connected();
  const lm::Fd accepted(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  EXPECT_EQ(option(accepted, IPPROTO_TCP, TCP_USER_TIMEOUT), 10000);
  EXPECT_TRUE(blocks(accepted));
}
