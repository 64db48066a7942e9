#include <gtest/gtest.h>

#include <string>

#include "lumen/services/fence/NameServers.h"

namespace lumen {
namespace {

std::string read(const std::string& text) {
  const NameServers servers = NameServers::parse(text);
  std::string result;
  for (const Ipv4Address& address : servers.ipv4) result += address.text() + " ";
  for (const std::string& address : servers.ipv6) result += address + " ";
  return result;
}

TEST(NameServers, AreThoseOfTheFile) {
  struct Row {
    const char* text;
    const char* servers;
  };
  const Row rows[] = {
      {"nameserver 9.9.9.9\n", "9.9.9.9 "},
      {"search lan\nnameserver 192.168.1.1\nnameserver 1.1.1.1\noptions edns0\n",
       "1.1.1.1 192.168.1.1 "},
      {"nameserver 1.1.1.1\nnameserver 1.1.1.1", "1.1.1.1 "},
      {" \tnameserver\t1.1.1.1  # the first\r\n", "1.1.1.1 "},
      {"nameserver 1.1.1.1, 2.2.2.2 3.3.3.3\n", "1.1.1.1 2.2.2.2 3.3.3.3 "},
      {"nameserver 2001:DB8:0::1\nnameserver fe80::1%wan0\n", "2001:db8::1 fe80::1 "},
      {"nameserver 1.1.1.1 ; nameserver 2.2.2.2\n", "1.1.1.1 "},
      {"nameserver 1.1.1.1\nnameserver } accept\nnameserver 2.2.2.2/8\n", "1.1.1.1 "},
  };
  for (const Row& row : rows) EXPECT_EQ(read(row.text), row.servers) << row.text;
}

// As the resolver library has it (c-ares, ares_init_options).
TEST(NameServers, AreTheLocalOneWhenTheFileNamesNone) {
  for (const char* text : {"", "\n\n", "search lan\n", "# nameserver 1.1.1.1\n", "nameserver\n",
                           "nameserver x\n", "nameservers 1.1.1.1\n", "1.1.1.1\n"}) {
    EXPECT_EQ(read(text), "127.0.0.1 ") << text;
  }
}

}  // namespace
}  // namespace lumen
