#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "lumen/values/Ipv4.h"
#include "pcp/codec/NatPmp.h"
#include "pcp/codec/Pcp.h"
#include "pcp/table/Epoch.h"
#include "pcp/table/MappingTable.h"

namespace pcp {

/// Answers the requests of hosts on the LAN in the language that they speak.
class Responder {
 public:
  using Answer = std::optional<std::vector<uint8_t>>;

  /// All must outlive this. `agents` are the hosts that may ask for others (THIRD_PARTY).
  Responder(MappingTable& table, const Epoch& epoch, const std::set<lumen::Ipv4Address>& agents)
      : table_(table), epoch_(epoch), agents_(agents) {}

  /// The answer to what `source` sent; none: it gets none.
  [[nodiscard]] Answer answer(std::span<const uint8_t> datagram, lumen::Ipv4Address source);

  /// The announcement of NAT-PMP: the external address, or that there is none.
  [[nodiscard]] std::vector<uint8_t> natPmpAnnouncement() const;
  /// The announcement of PCP.
  [[nodiscard]] std::vector<uint8_t> pcpAnnouncement() const;

 private:
  struct Carried;

  [[nodiscard]] natpmp::AddressResponse answer(const natpmp::AddressRequest& request) const;
  [[nodiscard]] natpmp::MapResponse answer(const natpmp::MapRequest& request,
                                           lumen::Ipv4Address source);
  [[nodiscard]] Answer answerPcp(std::span<const uint8_t> datagram, lumen::Ipv4Address source);
  [[nodiscard]] Carried carryOut(const Request& request, lumen::Ipv4Address source);
  [[nodiscard]] Carried map(const Request& request, lumen::Ipv4Address client);

  MappingTable& table_;
  const Epoch& epoch_;
  const std::set<lumen::Ipv4Address>& agents_;
};

}  // namespace pcp
