// Policy files: a policy that is taken obeys its limits, is the same when its settings are written
// down plainly, and owes nothing to a comment.

#include <algorithm>
#include <charconv>
#include <set>
#include <string>
#include <string_view>

#include "fuzz/Fuzz.h"
#include "lumen/services/nat/PolicyFile.h"

namespace {

using fuzz::require;

bool same(const lumen::Policy& a, const lumen::Policy& b) {
  return a.externalPorts.text() == b.externalPorts.text() &&
         a.internalClients.text() == b.internalClients.text() && a.maxRules == b.maxRules &&
         a.maxRulesPerClient == b.maxRulesPerClient;
}

/// A default policy with the same settings.
lumen::Policy written(const lumen::Policy& policy) {
  lumen::Policy again;
  const auto set = [&again](std::string_view name, const std::string& value) {
    require(again.set(name, value).ok(), "a setting is taken as it is written");
  };
  set("external-ports", policy.externalPorts.text());
  set("internal-clients", policy.internalClients.text());
  set("internal-ports", policy.internalPorts.text());
  set("router-ports", policy.routerPorts.text());
  set("max-rules", std::to_string(policy.maxRules));
  set("max-rules-per-client", std::to_string(policy.maxRulesPerClient));
  return again;
}

/// The text without the lines that are comments.
std::string withoutComments(std::string_view text) {
  std::string rest;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    const size_t first = line.find_first_not_of(" \t\r\v\f");
    const bool comment =
        first != std::string_view::npos && (line[first] == ';' || line[first] == '#');
    if (!comment) rest.append(line);
    rest.append("\n");
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return rest;
}

/// The numbers in the text, each with its neighbours, as ports.
std::set<uint16_t> portsIn(std::string_view text) {
  std::set<uint16_t> ports = {0, 1, 1023, 1024, 65535};
  while (true) {
    text.remove_prefix(std::min(text.find_first_of("0123456789"), text.size()));
    if (text.empty()) return ports;
    unsigned number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    for (const unsigned port : {number - 1, number, number + 1}) {
      ports.insert(static_cast<uint16_t>(port));
    }
  }
}

/// Both, of which one was read from `text`, must allow the same.
void checkAgreement(const lumen::Policy& a, const lumen::Policy& b, std::string_view text) {
  for (const uint16_t port : portsIn(text)) {
    require(a.externalPorts.contains(port) == b.externalPorts.contains(port),
            "the same ports are allowed");
  }
  require(!a.externalPorts.contains(0), "port 0 is not allowed");
  using lumen::Ipv4Address;
  for (const Ipv4Address host : {Ipv4Address(), Ipv4Address(10, 0, 0, 1),
                                 Ipv4Address(192, 168, 88, 10), Ipv4Address(255, 255, 255, 255)}) {
    using Known = lumen::KnownInterfaces::Known;
    for (const std::optional<Known>& interface :
         {std::optional<Known>(),
          std::optional(Known{.name = "wan0", .index = 1, .internal = false}),
          std::optional(Known{.name = "br-lan", .index = 2, .internal = true})}) {
      require(a.internalClients.contains(host, interface) ==
                  b.internalClients.contains(host, interface),
              "the same clients are allowed");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text = fuzz::text(data, size);
  const auto policy = lumen::parsePolicyFile(text);
  require(policy || !policy.why().empty(), "a refusal has a reason");
  if (!policy) return 0;
  require(policy->maxRules <= 65536 && policy->maxRulesPerClient <= 65536,
          "a table fits in a small router");
  const lumen::Policy again = written(*policy);
  require(same(*policy, again), "settings are written as they were read");
  checkAgreement(*policy, again, text);

  const auto bare = lumen::parsePolicyFile(withoutComments(text));
  require(bare && same(*policy, *bare), "a comment means nothing");
  return 0;
}
