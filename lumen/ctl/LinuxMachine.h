#pragma once

#include <optional>
#include <string>

#include "lumen/ctl/Machine.h"

namespace lumenctl {

/// The machine as it is.
class LinuxMachine : public Machine {
 public:
  [[nodiscard]] std::optional<std::string> read(const std::string& path) override;
  [[nodiscard]] bool isBridge(const std::string& link) override;
  [[nodiscard]] bool hasTerminal() override;
  [[nodiscard]] bool showsColours() override;
  [[nodiscard]] std::optional<std::string> typedLine() override;
};

}  // namespace lumenctl
