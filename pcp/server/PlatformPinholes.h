#pragma once

#include "pcp/table/Ports.h"
#include "platform/Handler.h"

namespace pcp {

/// The ports of IPv6 hosts that the platform opens, as its pinholes (platform/wire/Pinholes.h).
/// They end with this program's connection.
class PlatformPinholes : public Ports {
 public:
  /// `handler` sends the requests; it must outlive this.
  explicit PlatformPinholes(lm::Handler& handler) : handler_(handler) {}

  [[nodiscard]] std::variant<Open, Failure> add(const Wish& wish) override;
  [[nodiscard]] std::optional<Failure> renew(uint32_t id, uint32_t lifetime,
                                             const std::optional<Networks>& remotes) override;
  void remove(uint32_t id) override;
  /// No other service opens any.
  [[nodiscard]] std::optional<uint16_t> openByOthers(uint8_t /*protocol*/,
                                                     const IpAddress& /*external*/,
                                                     const Endpoint& /*client*/) override {
    return std::nullopt;
  }

 private:
  lm::Handler& handler_;
};

}  // namespace pcp
