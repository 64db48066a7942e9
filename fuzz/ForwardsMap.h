#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "lumen/services/system/netfilter/Nftables.h"

namespace fuzz {

/// The kernel's map of open ports, as far as lumend uses it. It knows the commands of lumend only:
/// any other text breaks a promise, and so does one that the kernel would have to refuse.
class ForwardsMap : public lumen::Nftables {
 public:
  struct Element {
    std::string client;    ///< "192.168.88.10 . 80"
    uint64_t packets = 0;  ///< that came, another number for each element that is added

    bool operator==(const Element&) const = default;
  };

  lumen::Result<std::string> run(const std::string& commands) override;
  lumen::Result<std::string> runFile(const std::string& path) override;
  lumen::Result<void> changeElements(lumen::ElementChange change, const lumen::ElementMap& map,
                                     std::span<const lumen::MapElement> elements) override;
  void forget() override {}

  /// Refuses one command about elements: the one after the next `commands`.
  void refuseAfter(unsigned commands) { refusal_ = commands; }

  /// By key: "45.45.45.1 . tcp . 8080".
  [[nodiscard]] const std::map<std::string, Element>& elements() const { return elements_; }

 private:
  [[nodiscard]] bool refuses();
  void runLine(std::string_view line);
  void add(std::string_view element);
  void remove(std::string_view keys);
  [[nodiscard]] std::string get(const std::string& key) const;
  [[nodiscard]] std::string text() const;

  std::map<std::string, Element> elements_;
  std::optional<Element> removed_;  // by the line before, in the same transaction
  std::optional<unsigned> refusal_;
  uint64_t added_ = 0;
};

}  // namespace fuzz
