#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>

#include <array>
#include <cstring>
#include <string>

#include "lumen/services/system/netlink/SocketListeners.h"

namespace lumen {
namespace {

/// A message of the kernel's answer about a socket.
class Diag {
 public:
  Diag(int family, const std::string& address) {
    nlmsghdr* const header = mnl_nlmsg_put_header(buffer_.data());
    header->nlmsg_type = SOCK_DIAG_BY_FAMILY;
    auto* const socket =
        static_cast<inet_diag_msg*>(mnl_nlmsg_put_extra_header(header, sizeof(inet_diag_msg)));
    socket->idiag_family = static_cast<uint8_t>(family);
    socket->idiag_uid = 33;
    socket->id.idiag_if = 7;
    EXPECT_EQ(inet_pton(family, address.c_str(), socket->id.idiag_src), 1) << address;
  }

  Diag& ipv6Only(uint8_t value) {
    mnl_attr_put_u8(header(), INET_DIAG_SKV6ONLY, value);
    return *this;
  }
  Diag& group(uint64_t number) {
    mnl_attr_put_u64(header(), INET_DIAG_CGROUP_ID, number);
    return *this;
  }
  Diag& cut(uint32_t bytes) {
    header()->nlmsg_len -= bytes;
    return *this;
  }

  [[nodiscard]] std::optional<ListeningSocket> read() const {
    return readListeningSocket(*reinterpret_cast<const nlmsghdr*>(buffer_.data()));
  }

 private:
  nlmsghdr* header() { return reinterpret_cast<nlmsghdr*>(buffer_.data()); }

  alignas(nlmsghdr) std::array<char, 512> buffer_{};
};

TEST(SocketListeners, KnowWhichIpv4AddressesASocketTakes) {
  struct Row {
    Diag diag;
    bool any;
    const char* address;
  };
  const Row rows[] = {
      {Diag(AF_INET, "0.0.0.0"), true, "0.0.0.0"},
      {Diag(AF_INET, "45.45.45.1"), false, "45.45.45.1"},
      {Diag(AF_INET6, "::").ipv6Only(0), true, "0.0.0.0"},
      {Diag(AF_INET6, "::"), true, "0.0.0.0"},
      {Diag(AF_INET6, "::").ipv6Only(1), false, "0.0.0.0"},
      {Diag(AF_INET6, "::1").ipv6Only(0), false, "0.0.0.0"},
      {Diag(AF_INET6, "::ffff:45.45.45.1").ipv6Only(0), false, "45.45.45.1"},
      {Diag(AF_INET6, "2001:db8::1").ipv6Only(0), false, "0.0.0.0"},
  };
  for (const Row& row : rows) {
    const auto socket = row.diag.read();
    ASSERT_TRUE(socket);
    EXPECT_EQ(socket->takesAnyAddress, row.any) << row.address;
    EXPECT_EQ(socket->address.text(), row.address);
    EXPECT_EQ(socket->interface, 7U);
    EXPECT_EQ(socket->user, 33U);
    EXPECT_EQ(socket->group, 0U);
  }
  EXPECT_EQ(Diag(AF_INET, "0.0.0.0").group(0x100000007).read()->group, 0x100000007U);
}

TEST(SocketListeners, IgnoreWhatIsNoSocket) {
  EXPECT_FALSE(Diag(AF_INET, "0.0.0.0").cut(1).read()) << "too short";
  EXPECT_FALSE(Diag(AF_INET, "0.0.0.0").group(7).cut(4).read()) << "an attribute is cut";
  nlmsghdr other = {};
  other.nlmsg_len = sizeof other;
  other.nlmsg_type = NLMSG_DONE;
  EXPECT_FALSE(readListeningSocket(other));
}

}  // namespace
}  // namespace lumen
