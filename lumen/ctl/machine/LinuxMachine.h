#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumen/ctl/machine/Machine.h"
#include "lumen/ctl/screen/Interruption.h"

namespace lumenctl {

/// The real machine.
class LinuxMachine : public Machine {
 public:
  [[nodiscard]] std::optional<std::string> read(const std::string& path) override;
  [[nodiscard]] bool isBridge(const std::string& link) override;
  [[nodiscard]] bool carriesMulticast(const std::string& link) override;
  [[nodiscard]] std::string userName(uint32_t number) override;
  [[nodiscard]] Process ownerOf(uint64_t inode) override;
  [[nodiscard]] SocketLinks socketLinks() override;
  [[nodiscard]] std::optional<std::vector<ForwardChain>> forwardChains() override;
  [[nodiscard]] bool hasTerminal() override;
  [[nodiscard]] bool showsColours() override;
  [[nodiscard]] std::unique_ptr<Screen> screen() override;
  [[nodiscard]] bool pause(std::chrono::milliseconds limit) override;
  [[nodiscard]] std::optional<std::string> typedLine() override;

 private:
  std::optional<Interruption> interruption_;  // none until the first pause
};

}  // namespace lumenctl
