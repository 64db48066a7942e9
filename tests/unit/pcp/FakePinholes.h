#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <variant>

#include "pcp/table/Pinholes.h"

namespace pcp::test {

/// A router whose pinholes a test can look at.
class FakePinholes : public Pinholes {
 public:
  std::variant<uint32_t, Failure> add(const Wish& wish) override {
    if (failure) return *failure;
    open.emplace(++lastId, wish);
    return lastId;
  }

  bool renew(uint32_t id, uint32_t lifetime) override {
    const auto pinhole = open.find(id);
    if (pinhole == open.end()) return false;
    pinhole->second.lifetime = lifetime;
    return true;
  }

  void remove(uint32_t id) override { open.erase(id); }

  std::map<uint32_t, Wish> open;
  uint32_t lastId = 0;
  std::optional<Failure> failure;  ///< of each add
};

}  // namespace pcp::test
