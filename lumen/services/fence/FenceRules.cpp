#include "lumen/services/fence/FenceRules.h"

#include <algorithm>
#include <string_view>

namespace lumen::fence {

namespace {

/// "{ 1, 2 }".
class List {
 public:
  void add(const std::string& element) { text_ += (text_.empty() ? "" : ", ") + element; }
  [[nodiscard]] std::string text() const { return "{ " + text_ + " }"; }

 private:
  std::string text_;
};

std::string quoted(const std::string& name) { return '"' + name + '"'; }

/// The rules that send the packets of each user through the chains of what it was granted.
std::string judge(const Users& users, NetworkGrant grant, const std::string& chain) {
  std::string rules;
  for (const auto& [user, grants] : users) {
    if (!grants.contains(grant)) continue;
    rules += "\t\tmeta skuid " + std::to_string(user) + " jump " + chain + "\n";
  }
  return rules;
}

std::string makeTable(const std::string& family, const Users& users, const std::string& chains,
                      const std::string& rules) {
  List all;
  for (const auto& [user, grants] : users) all.add(std::to_string(user));
  return "create table " + family + " lumen_fence { flags owner; }\n" +  //
         "table " + family +
         " lumen_fence {\n"
         "\tflags owner\n" +
         chains +
         "\tchain refuse {\n"
         "\t\tmeta l4proto tcp counter reject with tcp reset\n"
         "\t\tcounter reject\n"
         "\t}\n"
         "\tchain output {\n"
         "\t\ttype filter hook output priority mangle; policy accept;\n" +
         rules + (users.empty() ? "" : "\t\tmeta skuid " + all.text() + " goto refuse\n") +
         "\t}\n"
         "}\n";
}

std::string refill(const std::string& chain, const std::string& rules) {
  return "flush chain " + chain + "\n" + rules;
}

std::string grantPort53(const std::string& chain, const std::string& family, const List& servers) {
  return "add rule " + chain + " " + family + " daddr " + servers.text() +
         " meta l4proto { tcp, udp } th dport 53 accept\n";
}

}  // namespace

// Text in quotation marks knows no escapes, and a star at its end stands for any.
bool canName(const std::string& interface) {
  return std::ranges::none_of(interface, [](char c) {
    return c <= ' ' || c > '~' || std::string_view("\"\\*").find(c) != std::string_view::npos;
  });
}

std::string makeIpv4Table(const Users& users) {
  return makeTable("ip", users,
                   "\tchain internal {\n\t}\n\tchain answers {\n\t}\n\tchain name_servers {\n\t}\n",
                   judge(users, NetworkGrant::internal, "internal") +
                       judge(users, NetworkGrant::answers, "answers") +
                       judge(users, NetworkGrant::nameServers, "name_servers"));
}

std::string makeIpv6Table(const Users& users) {
  return makeTable("ip6", users, "\tchain internal {\n\t}\n\tchain name_servers {\n\t}\n",
                   judge(users, NetworkGrant::internal, "internal") +
                       judge(users, NetworkGrant::nameServers, "name_servers"));
}

std::string grantInternal(const Internal& internal) {
  const std::string chain = "ip lumen_fence internal";
  const std::string answers = "ip lumen_fence answers";
  List names;
  std::string rules;
  for (const auto& [name, networks] : internal) {
    names.add(quoted(name));
    // Neither the network's own address nor its broadcast address is one of a host.
    for (const Ipv4Network& network : networks) {
      rules += "add rule " + chain + " oifname " + quoted(name) + " ip daddr " + network.text() +
               " fib daddr type unicast accept\n";
    }
  }
  if (internal.empty()) return refill(chain, "") + refill(answers, "");
  const std::string interfaces = " oifname " + names.text();
  const std::string answering = interfaces + " ct state established accept\n";
  // What answers a host that is not in the network itself, but was let in by the interface. Most
  // packets are such: this rule comes first.
  return refill(chain,
                "add rule " + chain + answering + rules + "add rule " + chain + interfaces +
                    " ip daddr . udp dport { 239.255.255.250 . 1900, 224.0.0.1 . 5350 } accept\n") +
         refill(answers, "add rule " + answers + answering);
}

std::string grantIpv6Internal(const std::set<std::string>& names) {
  const std::string chain = "ip6 lumen_fence internal";
  if (names.empty()) return refill(chain, "");
  List list;
  for (const std::string& name : names) list.add(quoted(name));
  const std::string begin = "add rule " + chain + " oifname " + list.text() + " udp sport 5351 ";
  return refill(chain, begin + "ct state established ct direction reply accept\n" + begin +
                           "ip6 daddr . udp dport { ff02::1 . 5350 } accept\n");
}

std::string grantNameServers(const NameServers& servers) {
  const std::string chain = "ip lumen_fence name_servers";
  if (servers.ipv4.empty()) return refill(chain, "");
  List addresses;
  for (const Ipv4Address& address : servers.ipv4) addresses.add(address.text());
  return refill(chain, grantPort53(chain, "ip", addresses));
}

std::string grantIpv6NameServers(const NameServers& servers) {
  const std::string chain = "ip6 lumen_fence name_servers";
  if (servers.ipv6.empty()) return refill(chain, "");
  List addresses;
  for (const std::string& address : servers.ipv6) addresses.add(address);
  return refill(chain, grantPort53(chain, "ip6", addresses));
}

}  // namespace lumen::fence
