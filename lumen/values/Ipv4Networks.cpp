#include "lumen/values/Ipv4Networks.h"

#include <algorithm>
#include <utility>

namespace lumen {

Ipv4Networks tidyNetworks(Ipv4Networks networks) {
  // By address and then by prefix: a network stands before those that it holds.
  std::ranges::sort(networks);
  Ipv4Networks tidy;
  for (const Ipv4Network& network : networks) {
    if (tidy.empty() || !tidy.back().holds(network.first())) tidy.push_back(network);
  }
  return tidy;
}

std::string networksText(const Ipv4Networks& networks) {
  std::string text;
  for (const Ipv4Network& network : networks) text += (text.empty() ? "" : " ") + network.text();
  return text;
}

}  // namespace lumen
