#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "lumen/services/system/netfilter/Nftables.h"

namespace fuzz {

/// The kernel's map of open ports, as far as lumend uses it. Any other
/// command breaks a promise, and so does a change that the kernel would have to refuse.
class ForwardsMap : public lumen::Nftables {
 public:
  struct Element {
    std::string client;    ///< "192.168.88.10 . 80"
    uint64_t packets = 0;  ///< that came, another number for each element that is added
    lumen::SetElement parts{};

    bool operator==(const Element&) const = default;
  };

  lumen::Result<std::string> run(const std::string& commands) override;
  lumen::Result<std::string> runFile(const std::string& path) override;
  lumen::Result<void> changeElements(std::span<const lumen::ElementChange> changes) override;
  lumen::Result<lumen::SetElement> readElement(const lumen::ElementSet& set,
                                               const lumen::ElementParts& key) override;
  lumen::Result<void> readElements(const lumen::ElementSet& set,
                                   const lumen::ElementVisitor& visit) override;
  void forget() override {}

  /// Refuses one command about elements: the one after the next `commands`.
  void refuseAfter(unsigned commands) { refusal_ = commands; }

  /// By key: "45.45.45.1 . tcp . 8080", with a remote network
  /// "45.45.45.1 . tcp . 8080 . 10.0.0.0-10.255.255.255".
  [[nodiscard]] const std::map<std::string, Element>& elements() const { return elements_; }

 private:
  [[nodiscard]] bool refuses();
  void add(const lumen::SetElement& element, bool filtered);
  void remove(const lumen::SetElement& element, bool filtered);

  std::map<std::string, Element> elements_;
  std::optional<uint64_t> removed_;  // packets, in a transaction that adds what it has removed
  std::optional<unsigned> refusal_;
  uint64_t added_ = 0;
};

}  // namespace fuzz
