#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "lumen/services/system/netfilter/Nftables.h"
#include "lumen/values/Ipv6.h"

namespace lumen::test {

/// Records the commands, changes of elements as the command of nft(8) that does the same. All
/// succeed, unless a test scripts another result.
class FakeSet : public Nftables {
 public:
  Result<std::string> run(const std::string& commands) override {
    texts.push_back(commands);
    const auto script = scripts_.find(commands);
    return script == scripts_.end() ? Result<std::string>(std::string()) : script->second;
  }
  Result<std::string> runFile(const std::string& path) override { return run("file " + path); }

  Result<void> changeElements(std::span<const ElementChange> changes) override {
    std::string command;
    for (const ElementChange& change : changes) {
      command += change.action == ElementAction::add ? "add element" : "delete element";
      command += std::string(change.set.family == TableFamily::ip6 ? " ip6 " : " ip ") +
                 change.set.table + " " + change.set.name + " { ";
      for (const SetElement& element : change.elements) {
        if (&element != &change.elements.front()) command += ", ";
        command += textOf(element.key);
        if (element.key.size() > plainParts) {
          command += " . " + addressAt(element.key, plainParts) + "-" +
                     addressAt(element.keyEnd, plainParts);
        }
      }
      command += " }";
    }
    const auto done = run(command);
    return done ? Result<void>() : Failure{done.why()};
  }
  Result<SetElement> readElement(const ElementSet& /*set*/, const ElementParts& /*key*/) override {
    return Failure{"not asked for"};
  }
  Result<void> readElements(const ElementSet& /*set*/, const ElementVisitor& /*visit*/) override {
    return Failure{"not asked for"};
  }
  void forget() override {}

  void prints(const std::string& commands, const std::string& text) {
    scripts_.insert_or_assign(commands, text);
  }
  void refuses(const std::string& commands, const std::string& text) {
    scripts_.insert_or_assign(commands, Failure{text});
  }
  void refusesNothing() { scripts_.clear(); }

  /// The commands since the last call.
  std::vector<std::string> takeTexts() { return std::exchange(texts, {}); }

  std::vector<std::string> texts;

 private:
  static constexpr size_t plainParts = 6;

  static std::string addressAt(const ElementParts& parts, size_t first) {
    Ipv6Address::Bytes bytes = {};
    for (size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = std::to_integer<uint8_t>(parts.at(first + i / 4)[i % 4]);
    }
    return Ipv6Address(bytes).text();
  }

  // "2001:db8::10 . tcp . 8080"
  static std::string textOf(const ElementParts& key) {
    const int protocol = std::to_integer<int>(key.at(4)[0]);
    const int port = std::to_integer<int>(key.at(5)[0]) * 256 + std::to_integer<int>(key.at(5)[1]);
    return addressAt(key, 0) + (protocol == 6 ? " . tcp . " : " . udp . ") + std::to_string(port);
  }

  std::map<std::string, Result<std::string>> scripts_;
};

/// What nft prints of the table that the installed ruleset makes.
inline constexpr const char* installedTable =
    "table ip6 lumen { # progname lumend\n\tflags owner\n\n\tset pinholes {\n"
    "\t\ttype ipv6_addr . inet_proto . inet_service\n\t}\n\n\tset filtered {\n"
    "\t\ttype ipv6_addr . inet_proto . inet_service . ipv6_addr\n\t\tflags interval\n\t}\n\n"
    "\tchain inbound {\n"
    "\t\ttype filter hook prerouting priority dstnat + 2; policy accept;\n"
    "\t\tct state new ip6 daddr . meta l4proto . th dport @pinholes ct label set 125\n"
    "\t\tct state new meta l4proto { 6, 17 } ip6 daddr . meta l4proto . th dport . ip6 saddr "
    "@filtered ct label set 125\n\t}\n}\n";

}  // namespace lumen::test
