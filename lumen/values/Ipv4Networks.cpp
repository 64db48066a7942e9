#include "lumen/values/Ipv4Networks.h"

#include <utility>

#include "lumen/values/Networks.h"

namespace lumen {

Ipv4Networks tidyNetworks(Ipv4Networks networks) { return withoutHeld(std::move(networks)); }

std::string networksText(const Ipv4Networks& networks) { return joined(networks); }

}  // namespace lumen
