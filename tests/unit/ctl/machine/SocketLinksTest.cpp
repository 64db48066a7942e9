#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <cstring>

#include "lumen/ctl/machine/SocketLinks.h"
#include "platform/Fd.h"
#include "support/PrivateNetwork.h"

namespace lumenctl {
namespace {

uint64_t inodeOf(int fd) {
  struct stat status {};
  EXPECT_EQ(fstat(fd, &status), 0);
  return status.st_ino;
}

/// A socket at a port, on a link or on all of them, that takes what arrives.
lm::Fd listener(int kind, uint16_t port, const std::string& link) {
  lm::Fd fd(socket(AF_INET, kind | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  EXPECT_EQ(setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, link.c_str(),
                       static_cast<socklen_t>(link.size())),
            0);
  EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  if (kind == SOCK_STREAM) {
    EXPECT_EQ(listen(fd.get(), 1), 0);
  }
  return fd;
}

// Also proves [ctl-check-listens].
TEST(SocketLinksTest, ReadsTheLinkThatEachSocketIsBoundTo) {
  const PrivateNetwork network;
  ASSERT_EQ(system("ip link add br-home type bridge && ip link add br-guest type bridge"), 0);
  const lm::Fd tcp = listener(SOCK_STREAM, 2828, "br-home");
  const lm::Fd udp = listener(SOCK_DGRAM, 1900, "br-guest");
  const lm::Fd unbound = listener(SOCK_STREAM, 80, "");
  EXPECT_EQ(readSocketLinks(), (SocketLinks{{inodeOf(tcp.get()), if_nametoindex("br-home")},
                                            {inodeOf(udp.get()), if_nametoindex("br-guest")}}));
}

TEST(SocketLinksTest, IgnoresOtherMessages) {
  alignas(nlmsghdr) std::array<char, 128> buffer{};
  nlmsghdr* message = mnl_nlmsg_put_header(buffer.data());
  message->nlmsg_type = SOCK_DIAG_BY_FAMILY;
  auto* socket =
      static_cast<inet_diag_msg*>(mnl_nlmsg_put_extra_header(message, sizeof(inet_diag_msg)));
  socket->idiag_inode = 4711;
  socket->id.idiag_if = 3;
  SocketLinks links;
  const uint32_t length = message->nlmsg_len;
  for (uint32_t cut = sizeof(nlmsghdr); cut < length; ++cut) {
    message->nlmsg_len = cut;
    addSocketLink(*message, links);
  }
  message->nlmsg_len = length;
  message->nlmsg_type = NLMSG_DONE;
  addSocketLink(*message, links);
  EXPECT_EQ(links, SocketLinks{});
  message->nlmsg_type = SOCK_DIAG_BY_FAMILY;
  addSocketLink(*message, links);
  EXPECT_EQ(links, (SocketLinks{{4711, 3}}));
}

}  // namespace
}  // namespace lumenctl
