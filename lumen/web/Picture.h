#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "lumen/ctl/check/Finding.h"
#include "lumen/ctl/router/PortEvent.h"
#include "lumen/ctl/router/Records.h"
#include "lumen/ctl/router/Snapshot.h"

namespace lumen::web {

using Milliseconds = std::chrono::sys_time<std::chrono::milliseconds>;

/// Something that happened, in words.
struct Happening {
  Milliseconds time;
  std::string text;
};

/// What an external interface carried at one moment, in bits a second.
struct Sample {
  Milliseconds time;
  std::string interface;
  uint64_t down = 0;
  uint64_t up = 0;
};

/// The router, as the page shows it.
struct Picture {
  static constexpr size_t mostHappenings = 100;

  lumenctl::GatewayState gateway = lumenctl::GatewayState::off;
  Milliseconds since;  ///< when the gateway's state and external address were last seen to change
  lumenctl::Findings findings;
  std::vector<lumenctl::UsedInterface> interfaces;
  std::map<uint32_t, lumenctl::NatRule> rules;     ///< by id
  std::map<uint32_t, lumenctl::Pinhole> pinholes;  ///< by id
  std::vector<lumenctl::Service> services;
  uint64_t platformMemory = 0;  ///< bytes of resident memory of lumend; 0: not known
  std::map<std::string, lumenctl::Counters> counters;  ///< of external interfaces, by name
  std::vector<lumenctl::PortEvent> refusedPorts;       ///< of the router's own programs
  std::map<std::string, uint64_t> refusals;            ///< of ports, by the kind of the reason
  std::deque<Happening> happenings;                    ///< the oldest first
  std::deque<Sample> samples;                          ///< the oldest first

  [[nodiscard]] std::vector<lumenctl::NatRule> ruleList() const {
    std::vector<lumenctl::NatRule> list;
    for (const auto& [id, rule] : rules) list.push_back(rule);
    return list;
  }
  [[nodiscard]] std::vector<lumenctl::Pinhole> pinholeList() const {
    std::vector<lumenctl::Pinhole> list;
    for (const auto& [id, pinhole] : pinholes) list.push_back(pinhole);
    return list;
  }
};

}  // namespace lumen::web
