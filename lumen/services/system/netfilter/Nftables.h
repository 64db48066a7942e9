#pragma once

#include <span>
#include <string>

#include "lumen/services/system/netfilter/SetElements.h"
#include "lumen/values/Result.h"

namespace lumen {

/// The kernel's packet filter rules, in the language of nft(8).
class Nftables {
 public:
  virtual ~Nftables() = default;

  /// Runs all commands in one transaction, or none of them. Returns what they print; a failure is
  /// nft's own text of several lines.
  [[nodiscard]] virtual Result<std::string> run(const std::string& commands) = 0;

  /// The same with the commands of the file `path`.
  [[nodiscard]] virtual Result<std::string> runFile(const std::string& path) = 0;

  /// Changes elements of a map as one transaction does. A failure is one line of text.
  [[nodiscard]] virtual Result<void> changeElements(ElementChange change, const ElementMap& map,
                                                    std::span<const MapElement> elements) = 0;

  /// Frees what was kept from the commands so far for the next one.
  virtual void forget() = 0;
};

}  // namespace lumen
