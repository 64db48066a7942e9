#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <random>

#include "lumen/services/nat/Policy.h"

namespace lumen {

/// Chooses ports at random, so that no program can tell which one another gets.
class PortPicker {
 public:
  /// Chooses in an order that the kernel's random numbers decide.
  PortPicker();
  explicit PortPicker(uint32_t seed) : random_(seed) {}
  PortPicker(const PortPicker&) = delete;
  PortPicker& operator=(const PortPicker&) = delete;

  /// One of `ports` for which `isFree` holds, as likely as any other one; none when there is none.
  /// Where most ports are free it asks for one or two, else for all and a few of them twice.
  [[nodiscard]] std::optional<uint16_t> pick(const PortRanges& ports,
                                             const std::function<bool(uint16_t)>& isFree);

 private:
  std::mt19937 random_;
};

}  // namespace lumen
