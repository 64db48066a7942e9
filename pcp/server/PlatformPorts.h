#pragma once

#include "pcp/table/Ports.h"
#include "platform/Handler.h"

namespace pcp {

/// The ports that the platform forwards, as rules of its NAT table (platform/wire/NatRules.h). They
/// end with this program's connection.
class PlatformPorts : public Ports {
 public:
  /// `handler` sends the requests; it must outlive this.
  explicit PlatformPorts(lm::Handler& handler) : handler_(handler) {}

  [[nodiscard]] std::variant<Open, Failure> add(const Wish& wish) override;
  [[nodiscard]] std::optional<Failure> renew(uint32_t id, uint32_t lifetime,
                                             const std::optional<Networks>& remotes) override;
  void remove(uint32_t id) override;
  [[nodiscard]] std::optional<uint16_t> openByOthers(uint8_t protocol, const IpAddress& external,
                                                     const Endpoint& client) override;

 private:
  lm::Handler& handler_;
};

}  // namespace pcp
