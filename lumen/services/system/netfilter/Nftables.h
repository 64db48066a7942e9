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

  // Elements of sets and maps, as SetElements.h describes. A failure is one line of text.
  [[nodiscard]] virtual Result<void> changeElements(std::span<const ElementChange> changes) = 0;
  [[nodiscard]] virtual Result<SetElement> readElement(const ElementSet& set,
                                                       const ElementParts& key) = 0;
  [[nodiscard]] virtual Result<void> readElements(const ElementSet& set,
                                                  const ElementVisitor& visit) = 0;

  /// Frees what was kept from the commands so far for the next one.
  virtual void forget() = 0;
};

}  // namespace lumen
