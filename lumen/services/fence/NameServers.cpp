#include "lumen/services/fence/NameServers.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>

namespace lumen {

namespace {

constexpr std::string_view separators = " \t\r,";

/// Takes the first word off `line`; empty when there is none.
std::string_view takeWord(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(separators), line.size()));
  const std::string_view word = line.substr(0, line.find_first_of(separators));
  line.remove_prefix(word.size());
  return word;
}

void takeAddress(std::string_view word, NameServers& servers) {
  if (const auto address = Ipv4Address::parse(word)) {
    servers.ipv4.insert(*address);
    return;
  }
  const std::string address(word.substr(0, word.find('%')));
  in6_addr bytes = {};
  std::array<char, INET6_ADDRSTRLEN> text = {};
  if (inet_pton(AF_INET6, address.c_str(), &bytes) != 1) return;
  if (inet_ntop(AF_INET6, &bytes, text.data(), text.size()) == nullptr) return;
  servers.ipv6.insert(text.data());
}

}  // namespace

NameServers NameServers::parse(std::string_view text) {
  NameServers servers;
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    line = line.substr(0, line.find_first_of("#;"));
    if (takeWord(line) != "nameserver") continue;
    for (std::string_view word = takeWord(line); !word.empty(); word = takeWord(line)) {
      takeAddress(word, servers);
    }
  }
  if (servers.ipv4.empty() && servers.ipv6.empty()) servers.ipv4.insert({127, 0, 0, 1});
  return servers;
}

}  // namespace lumen
