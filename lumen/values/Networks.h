#pragma once

#include <algorithm>
#include <string>
#include <vector>

namespace lumen {

/// Of the networks of one version of IP, leaves out each that another one holds, and orders them.
template <typename Network>
[[nodiscard]] std::vector<Network> withoutHeld(std::vector<Network> networks) {
  // By address and then by prefix: a network stands before those that it holds.
  std::ranges::sort(networks);
  std::vector<Network> tidy;
  for (const Network& network : networks) {
    if (tidy.empty() || !tidy.back().holds(network.first())) tidy.push_back(network);
  }
  return tidy;
}

/// With spaces between them.
template <typename Network>
[[nodiscard]] std::string joined(const std::vector<Network>& networks) {
  std::string text;
  for (const Network& network : networks) text += (text.empty() ? "" : " ") + network.text();
  return text;
}

}  // namespace lumen
