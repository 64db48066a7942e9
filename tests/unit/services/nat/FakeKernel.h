#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "lumen/services/nat/LocalNetworks.h"
#include "lumen/services/system/netfilter/Flows.h"
#include "lumen/services/system/netfilter/Nftables.h"
#include "lumen/services/system/netlink/Listeners.h"
#include "lumen/values/Ipv4.h"
#include "lumen/values/Result.h"
#include "services/nat/ElementCommand.h"

namespace lumen::test {

/// Records the commands. All succeed, unless a test scripts another result.
class FakeNftables : public Nftables {
 public:
  Result<std::string> run(const std::string& commands) override {
    texts.push_back(commands);
    auto script = scripts_.find(commands);
    return script == scripts_.end() ? Result<std::string>(std::string()) : script->second;
  }

  Result<std::string> runFile(const std::string& path) override { return run("file " + path); }

  // Recorded as the commands of nft(8) that do the same.

  Result<void> changeElements(std::span<const ElementChange> changes) override {
    return recorded(elementCommands(changes));
  }

  /// Whatever was added and removed: any element is there, and has counted what a test says.
  Result<SetElement> readElement(const ElementSet& set, const ElementParts& key) override {
    const auto done = recorded("get element " + setText(set) + " { " + keyText(key) + " }");
    if (!done) return done.failure();
    const auto counted = counters_.find(key);
    return SetElement{.key = key,
                      .counter = counted == counters_.end() ? ElementCounter{} : counted->second};
  }

  /// Visits the elements of which a test says what they have counted.
  Result<void> readElements(const ElementSet& set, const ElementVisitor& visit) override {
    const auto done = recorded("list map " + setText(set));
    if (!done) return done;
    for (const auto& [key, counter] : counters_) visit({.key = key, .counter = counter});
    return {};
  }

  void forget() override { texts.emplace_back("forgets"); }

  void prints(const std::string& commands, const std::string& text) {
    scripts_.insert_or_assign(commands, text);
  }
  void refuses(const std::string& commands, const std::string& text) {
    scripts_.insert_or_assign(commands, Failure{text});
  }

  /// An element has no counter, or has counted so many packets.
  void counts(const ElementParts& key, std::optional<uint64_t> packets) {
    auto& counter = counters_[key];
    counter.reset();
    if (packets) counter = ElementCounter{.packets = *packets, .bytes = *packets * 60};
  }

  /// The commands since the last call.
  std::vector<std::string> takeTexts() { return std::exchange(texts, {}); }

  std::vector<std::string> texts;

 private:
  Result<void> recorded(const std::string& command) {
    const auto done = run(command);
    return done ? Result<void>() : Failure{done.why().substr(0, done.why().find('\n'))};
  }

  std::map<std::string, Result<std::string>> scripts_;
  std::map<ElementParts, std::optional<ElementCounter>> counters_;
};

/// Flows that a test lists. A sweep ends when the test decides.
class FakeFlows : public Flows {
 public:
  void sweepUdp(const std::set<Endpoint>& destinations, Sweeper& sweeper) override {
    sweeps.push_back(destinations);
    sweeper_ = &sweeper;
  }

  bool visitTranslated(const std::function<void(const Flow&)>& visit) override {
    ++visits;
    for (const Flow& flow : flows) visit(flow);
    return readable;
  }

  /// Judges the flows of the sweep that is under way, which is over then.
  void finishSweep() {
    std::erase_if(flows, [this](const Flow& flow) {
      return flow.protocol == 17 && sweeps.back().contains(flow.destination) &&
             sweeper_->ends(flow);
    });
    std::exchange(sweeper_, nullptr)->swept(true);
  }
  /// The sweep that is under way ends by an error, having judged nothing.
  void failSweep() { std::exchange(sweeper_, nullptr)->swept(false); }

  [[nodiscard]] bool sweeping() const { return sweeper_ != nullptr; }

  std::vector<Flow> flows;
  std::vector<std::set<Endpoint>> sweeps;  // what each was asked for
  int visits = 0;
  bool readable = true;  // all of them

 private:
  Sweeper* sweeper_ = nullptr;
};

/// Programs of the router that a test writes down.
class FakeListeners : public Listeners {
 public:
  std::optional<std::string> find(uint8_t protocol, const Endpoint& endpoint,
                                  uint32_t interface) override {
    asked.push_back(std::to_string(protocol) + " " + endpoint.text() + " by " +
                    std::to_string(interface));
    const auto it = programs.find({protocol, endpoint.port});
    if (it == programs.end()) return std::nullopt;
    return it->second;
  }

  std::map<std::pair<uint8_t, uint16_t>, std::string> programs;
  std::vector<std::string> asked;
};

/// A router with an external interface, 1, wan0, and an internal one, 2, br-lan, with
/// 192.168.88.0/24. A third one, guest0, with 192.168.99.0/24 has no role.
class FakeNetworks : public LocalNetworks, public KnownInterfaces {
 public:
  [[nodiscard]] std::optional<uint32_t> interfaceOf(Ipv4Address address) const override {
    auto it = addresses.find(address);
    if (it == addresses.end()) return std::nullopt;
    return it->second;
  }

  [[nodiscard]] std::optional<uint32_t> interfaceTowards(Ipv4Address host) const override {
    if (isOwn(host) || isReserved(host)) return std::nullopt;
    return interfaceWith(host);
  }

  [[nodiscard]] bool isOwn(Ipv4Address address) const override {
    return addresses.contains(address) || loopback.contains(address);
  }

  [[nodiscard]] bool isReserved(Ipv4Address address) const override {
    const auto in = [address](const Ipv4Network& network) {
      return address == network.first() || address == network.last();
    };
    return in(wan) || in(lan);
  }

  [[nodiscard]] std::optional<Known> known(uint32_t interface) const override {
    if (interface == 1) return Known{.name = "wan0", .index = 11, .internal = false};
    if (interface == 2) return Known{.name = "br-lan", .index = 12, .internal = true};
    if (interface == 3) return Known{.name = "guest0", .index = 13, .internal = false};
    return std::nullopt;
  }

  std::map<Ipv4Address, uint32_t> addresses = {{{45, 45, 45, 1}, 1}, {{192, 168, 88, 1}, 2}};
  std::set<Ipv4Address> loopback;

 private:
  static constexpr Ipv4Network wan{{45, 45, 45, 0}, 24};
  static constexpr Ipv4Network lan{{192, 168, 88, 0}, 24};
  static constexpr Ipv4Network guests{{192, 168, 99, 0}, 24};

  static std::optional<uint32_t> interfaceWith(Ipv4Address address) {
    if (wan.holds(address)) return 1;
    if (lan.holds(address)) return 2;
    if (guests.holds(address)) return 3;
    return std::nullopt;
  }
};

}  // namespace lumen::test
