#pragma once

#include <memory>

#include "lumen/services/system/netfilter/Nftables.h"

struct nft_ctx;

namespace lumen {

/// The rules of the network namespace in which it was made.
///
/// One netlink socket serves its whole life. A table made with `flags owner` belongs to that
/// socket: the kernel refuses everybody else's changes to it, and removes it when the socket is
/// closed, at the end of this object or, however it ends, of this process.
class LibNftables : public Nftables {
 public:
  LibNftables();
  LibNftables(const LibNftables&) = delete;
  LibNftables& operator=(const LibNftables&) = delete;
  ~LibNftables() override;

  [[nodiscard]] Result<std::string> run(const std::string& commands) override;
  [[nodiscard]] Result<std::string> runFile(const std::string& path) override;
  [[nodiscard]] Result<void> changeElements(std::span<const ElementChange> changes) override;
  [[nodiscard]] Result<SetElement> readElement(const ElementSet& set,
                                               const ElementParts& key) override;
  [[nodiscard]] Result<void> readElements(const ElementSet& set,
                                          const ElementVisitor& visit) override;
  void forget() override;

 private:
  [[nodiscard]] Result<std::string> result(int status);

  struct Free {
    void operator()(nft_ctx* context) const;
  };
  std::unique_ptr<nft_ctx, Free> context_;  // null: could not be made
  int socket_ = -1;                         // that of the context
};

}  // namespace lumen
