#pragma once

#include <string>

namespace lumen {

/// The kernel's packet filter rules, in the language of nft(8).
class Nftables {
 public:
  struct Result {
    bool done = false;
    std::string text;  ///< what the commands print; when they were refused, why
  };

  virtual ~Nftables() = default;

  /// Does all commands in one transaction, or none of them.
  [[nodiscard]] virtual Result run(const std::string& commands) = 0;

  /// The same with the commands of the file `path`.
  [[nodiscard]] virtual Result runFile(const std::string& path) = 0;
};

}  // namespace lumen
