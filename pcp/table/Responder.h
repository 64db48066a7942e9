#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "pcp/codec/IpAddress.h"
#include "pcp/codec/NatPmp.h"
#include "pcp/codec/Pcp.h"
#include "pcp/table/Epoch.h"
#include "pcp/table/MappingTable.h"

namespace pcp {

/// Answers the requests of hosts on the LAN in the language that they speak. NAT-PMP does not exist
/// for IPv6.
class Responder {
 public:
  using Answer = std::optional<std::vector<uint8_t>>;

  /// All must outlive this. `agents` are the hosts that may ask for others (THIRD_PARTY).
  Responder(MappingTable& table, const Epoch& epoch, const std::set<IpAddress>& agents)
      : table_(table), epoch_(epoch), agents_(agents) {}

  /// The answer to what `source` sent; none: it gets none.
  [[nodiscard]] Answer answer(std::span<const uint8_t> datagram, const IpAddress& source);

  /// The announcement of NAT-PMP: the external address, or that there is none.
  [[nodiscard]] std::vector<uint8_t> natPmpAnnouncement() const;
  /// The announcement of PCP.
  [[nodiscard]] std::vector<uint8_t> pcpAnnouncement() const;

 private:
  struct Carried;

  [[nodiscard]] natpmp::AddressResponse answer(const natpmp::AddressRequest& request) const;
  [[nodiscard]] natpmp::MapResponse answer(const natpmp::MapRequest& request,
                                           const IpAddress& source);
  [[nodiscard]] Answer answerPcp(std::span<const uint8_t> datagram, const IpAddress& source);
  [[nodiscard]] Carried carryOut(const Request& request, const IpAddress& source);
  [[nodiscard]] Carried map(const Request& request, const IpAddress& client);
  /// Answers with a port that is open to the client already, by other means than this program.
  [[nodiscard]] static Carried mapStatic(const Request& request, const Endpoint& open);

  MappingTable& table_;
  const Epoch& epoch_;
  const std::set<IpAddress>& agents_;
};

}  // namespace pcp
