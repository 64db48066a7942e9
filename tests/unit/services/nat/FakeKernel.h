#pragma once

#include <arpa/inet.h>

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "lumen/services/nat/LocalNetworks.h"
#include "lumen/services/system/netfilter/Flows.h"
#include "lumen/services/system/netfilter/Nftables.h"

namespace lumen::test {

/// Keeps the texts that it is given. It does all of them, unless a test scripts another result.
class FakeNftables : public Nftables {
 public:
  Result run(const std::string& commands) override {
    texts.push_back(commands);
    auto script = scripts_.find(commands);
    return script == scripts_.end() ? Result{true, ""} : script->second;
  }

  Result runFile(const std::string& path) override { return run("file " + path); }

  void prints(const std::string& commands, const std::string& text) {
    scripts_[commands] = {true, text};
  }
  void refuses(const std::string& commands, const std::string& text) {
    scripts_[commands] = {false, text};
  }

  /// What came since the last call.
  std::vector<std::string> takeTexts() { return std::exchange(texts, {}); }

  std::vector<std::string> texts;

 private:
  std::map<std::string, Result> scripts_;
};

/// Flows that a test writes down. A sweep is over when the test says so.
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

/// A router with an external interface, 1, and an internal one, 2, with 192.168.88.0/24.
class FakeNetworks : public LocalNetworks {
 public:
  [[nodiscard]] std::optional<uint32_t> interfaceOf(uint32_t address) const override {
    auto it = addresses.find(address);
    if (it == addresses.end()) return std::nullopt;
    return it->second;
  }

  [[nodiscard]] std::optional<uint32_t> interfaceTowards(uint32_t host) const override {
    if (isOwn(host) || isReserved(host)) return std::nullopt;
    return interfaceWith(host);
  }

  [[nodiscard]] bool isOwn(uint32_t address) const override {
    return addresses.contains(address) || loopback.contains(address);
  }

  [[nodiscard]] bool isReserved(uint32_t address) const override {
    uint32_t last = ntohl(address) & 0xFF;
    return interfaceWith(address) && (last == 0 || last == 255);
  }

  std::map<uint32_t, uint32_t> addresses = {{inet_addr("45.45.45.1"), 1},
                                            {inet_addr("192.168.88.1"), 2}};
  std::set<uint32_t> loopback;

 private:
  static std::optional<uint32_t> interfaceWith(uint32_t address) {
    uint32_t network = ntohl(address) & 0xFFFFFF00;
    if (network == 0x2D2D2D00) return 1;
    if (network == 0xC0A85800) return 2;
    return std::nullopt;
  }
};

}  // namespace lumen::test
