#pragma once

#include "pcp/table/Pinholes.h"
#include "platform/Handler.h"

namespace pcp {

/// The pinholes of the platform (platform/wire/Pinholes.h). They end with this program's
/// connection.
class PlatformPinholes : public Pinholes {
 public:
  /// `handler` sends the requests; it must outlive this.
  explicit PlatformPinholes(lm::Handler& handler) : handler_(handler) {}

  [[nodiscard]] std::variant<uint32_t, Failure> add(const Wish& wish) override;
  [[nodiscard]] bool renew(uint32_t id, uint32_t lifetime) override;
  void remove(uint32_t id) override;

 private:
  lm::Handler& handler_;
};

}  // namespace pcp
