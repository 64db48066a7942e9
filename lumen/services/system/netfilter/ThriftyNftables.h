#pragma once

#include "lumen/services/system/netfilter/Nftables.h"
#include "platform/Timer.h"

namespace lumen {

/// Runs commands by another object, which must outlive it. When none has followed for a second, it
/// lets that one forget, and gives the memory which this process no longer needs back to the
/// kernel. Needs the event loop.
class ThriftyNftables : public Nftables {
 public:
  explicit ThriftyNftables(Nftables& nftables) : nftables_(nftables) {}
  ThriftyNftables(const ThriftyNftables&) = delete;
  ThriftyNftables& operator=(const ThriftyNftables&) = delete;

  [[nodiscard]] Result<std::string> run(const std::string& commands) override;
  [[nodiscard]] Result<std::string> runFile(const std::string& path) override;
  [[nodiscard]] Result<void> changeElements(std::span<const ElementChange> changes) override;
  [[nodiscard]] Result<SetElement> readElement(const ElementSet& set,
                                               const ElementParts& key) override;
  [[nodiscard]] Result<void> readElements(const ElementSet& set,
                                          const ElementVisitor& visit) override;
  void forget() override;

 private:
  void forgetSoon();

  Nftables& nftables_;
  lm::Timer rest_;
};

}  // namespace lumen
