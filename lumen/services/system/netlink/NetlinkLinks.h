#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "lumen/services/system/netlink/Links.h"
#include "lumen/services/system/netlink/NetlinkReader.h"
#include "lumen/services/system/netlink/NetlinkSocket.h"
#include "platform/Timer.h"
#include "platform/Watch.h"

namespace lumen {

/// The links, addresses and routes of the network namespace in which it was made.
///
/// One socket receives every change. It is subscribed before the tables are read through it, so
/// that changes arrive between the answers and are applied to them. After the kernel had to drop
/// changes, a new socket starts over. A second socket carries requests and their answers, which
/// therefore never mix with changes.
class NetlinkLinks : public Links {
 public:
  /// The socket of changes has room for `receiveBuffer` bytes that wait.
  explicit NetlinkLinks(int receiveBuffer = 4 * 1024 * 1024) : receiveBuffer_(receiveBuffer) {}
  NetlinkLinks(const NetlinkLinks&) = delete;
  NetlinkLinks& operator=(const NetlinkLinks&) = delete;

  void start(Listener& listener) override;
  [[nodiscard]] std::optional<LinkStatus> read(uint32_t index) override;
  [[nodiscard]] Result<void> setUp(uint32_t index, bool up) override;
  [[nodiscard]] Result<std::vector<Route>> routes(uint32_t index) override;
  [[nodiscard]] int addRoute(const Route& route, uint32_t index) override;

 private:
  enum class Answer { complete, interrupted, failed };
  using Sink = std::function<void(NetlinkMessage&)>;

  /// Reads the tables; retries by timer until that succeeds.
  void readTables();
  [[nodiscard]] Answer tryReadTables(LinkSnapshot& all);
  void readChanges(int fd);
  void notifyListener(const NetlinkMessage& change);

  /// Sends `request` and hands every message that arrives to `sink`, until the answer is complete.
  /// `error` gets the errno of the kernel's answer, 0 if it did what was asked.
  [[nodiscard]] Answer exchange(NetlinkSocket& socket, nlmsghdr& request, int& error,
                                const Sink& sink);
  /// The same on the socket for requests, which it opens when necessary.
  [[nodiscard]] Answer request(nlmsghdr& request, int& error, const Sink& sink);
  /// The same, of a request that cannot be interrupted. Returns the errno; EIO when the kernel
  /// could not be asked.
  [[nodiscard]] int command(nlmsghdr& message, const Sink& sink);
  [[nodiscard]] Answer dumpRoutes(int family, uint32_t index, std::vector<Route>& found);

  const int receiveBuffer_;
  Listener* listener_ = nullptr;  // not owned; set by start
  uint32_t sequence_ = 0;
  NetlinkSocket requests_;
  NetlinkSocket changes_;
  lm::Watch watch_;  // of changes_
  lm::Timer retry_;  // of readTables
};

}  // namespace lumen
