#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lumen/ctl/machine/PacketFilter.h"
#include "lumen/ctl/machine/SocketLinks.h"
#include "lumen/ctl/screen/Screen.h"

namespace lumenctl {

/// A running process.
struct Process {
  uint32_t id = 0;   ///< 0: not visible
  std::string name;  ///< the kernel's, cut to 15 bytes
};

/// What lumenctl reads from the machine itself instead of asking the platform: in its own network
/// namespace, with the rights of its user.
class Machine {
 public:
  virtual ~Machine() = default;

  /// The text of a file. None, with errno, when it cannot be read.
  [[nodiscard]] virtual std::optional<std::string> read(const std::string& path) = 0;
  /// Whether the link is an Ethernet bridge.
  [[nodiscard]] virtual bool isBridge(const std::string& link) = 0;
  /// Whether the link is marked as one that carries multicast (IFF_MULTICAST).
  [[nodiscard]] virtual bool carriesMulticast(const std::string& link) = 0;
  /// The name of the user with this number, or the number itself.
  [[nodiscard]] virtual std::string userName(uint32_t number) = 0;
  /// Who has the socket of this inode open.
  [[nodiscard]] virtual Process ownerOf(uint64_t inode) = 0;
  /// The links that listening IPv4 sockets are bound to; see readSocketLinks().
  [[nodiscard]] virtual SocketLinks socketLinks() = 0;
  /// What all firewalls together do to forwarded packets. None when it cannot be read, which needs
  /// CAP_NET_ADMIN.
  [[nodiscard]] virtual std::optional<std::vector<ForwardChain>> forwardChains() = 0;

  /// Whether there is a terminal at which the user can be asked.
  [[nodiscard]] virtual bool hasTerminal() = 0;
  /// Whether what is printed may have colours.
  [[nodiscard]] virtual bool showsColours() = 0;
  /// The terminal to draw on; null when standard output is none, or one that cannot be drawn on.
  [[nodiscard]] virtual std::unique_ptr<Screen> screen() = 0;
  /// Waits for `limit`. False when the program is asked to end (SIGINT, SIGTERM), or its standard
  /// output has lost its reader.
  [[nodiscard]] virtual bool pause(std::chrono::milliseconds limit) = 0;
  /// Waits for the next line that is typed there; none at the end of the input.
  [[nodiscard]] virtual std::optional<std::string> typedLine() = 0;
};

}  // namespace lumenctl
