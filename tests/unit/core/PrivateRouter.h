#pragma once

#include <string>
#include <vector>

#include "platform/Fd.h"

/// Where the gateway under test lives: mounts and a network that only this process sees and that
/// end with it. /lumen holds two empty stores; `lan0` is 192.168.88.1/24. It is cabled to a host in
/// a second network namespace, 192.168.88.10/24. Needs root.
class PrivateRouter {
 public:
  /// Made by the first call; from then on the process is inside.
  static PrivateRouter& get();

  PrivateRouter(const PrivateRouter&) = delete;
  PrivateRouter& operator=(const PrivateRouter&) = delete;

  /// Removes what was persisted.
  void emptyStores() const;
  /// The kernel's index of lan0.
  [[nodiscard]] unsigned int lanIndex() const;

  /// A socket of the LAN host.
  [[nodiscard]] lm::Fd hostSocket(int type) const;
  /// A socket of the LAN host that receives the announcements that are sent after this call.
  [[nodiscard]] lm::Fd hostListener() const;

  /// Everything that has arrived at the LAN host's UDP socket, which must have a port: what was
  /// sent to it before this call has arrived when it returns.
  [[nodiscard]] std::vector<std::string> received(const lm::Fd& socket) const;

 private:
  PrivateRouter();

  lm::Fd host_;  // its network namespace
};
