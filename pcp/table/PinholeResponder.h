#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "lumen/values/Ipv6.h"
#include "pcp/codec/Pcp.h"
#include "pcp/table/Epoch.h"
#include "pcp/table/PinholeTable.h"

namespace pcp {

/// Answers the PCP requests that hosts on the LAN send by IPv6. NAT-PMP does not exist there.
class PinholeResponder {
 public:
  /// All must outlive this. `agents` are the hosts that may ask for others (THIRD_PARTY).
  PinholeResponder(PinholeTable& table, const Epoch& epoch,
                   const std::set<lumen::Ipv6Address>& agents)
      : table_(table), epoch_(epoch), agents_(agents) {}

  /// The answer to what `source` sent; none: it gets none.
  [[nodiscard]] std::optional<std::vector<uint8_t>> answer(std::span<const uint8_t> datagram,
                                                           const lumen::Ipv6Address& source);

  [[nodiscard]] std::vector<uint8_t> announcement() const;

 private:
  struct Carried;

  [[nodiscard]] Carried carryOut(const Request& request, const lumen::Ipv6Address& source);
  [[nodiscard]] Carried map(const Request& request, const lumen::Ipv6Address& host);

  PinholeTable& table_;
  const Epoch& epoch_;
  const std::set<lumen::Ipv6Address>& agents_;
};

}  // namespace pcp
