#pragma once

#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "platform/Timer.h"
#include "platform/Watch.h"

namespace lumen {

// The kernel's table of the flows that it tracks, over ctnetlink.
//
// Reading it walks the whole table, which costs milliseconds even when it is empty. The kernel
// applies the filters that it can, and gives back control after each buffer of results.

struct CloseMnlSocket {
  void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using MnlSocket = std::unique_ptr<mnl_socket, CloseMnlSocket>;

/// A request to ctnetlink, in a buffer that every request fits into.
class FlowRequest {
 public:
  /// `family` is AF_INET or AF_INET6.
  FlowRequest(uint8_t family, uint16_t type, uint16_t flags);
  FlowRequest(const FlowRequest&) = delete;
  FlowRequest& operator=(const FlowRequest&) = delete;

  [[nodiscard]] nlmsghdr* header() const { return header_; }
  /// Whether there is room for this attribute and another one.
  [[nodiscard]] bool fits(const nlattr* attribute) const;
  [[nodiscard]] bool sendOn(mnl_socket* socket) const;

 private:
  alignas(nlmsghdr) char buffer_[4096] = {};
  nlmsghdr* header_;
};

/// An entry of the table. Its attributes are valid as long as it is visited.
struct FlowEntry {
  const nlattr* origin = nullptr;  ///< the tuple of its first packets; never null
  const nlattr* reply = nullptr;   ///< that of the answers; null: absent
  const nlattr* labels = nullptr;  ///< its connection labels; null: it has none
  uint32_t id = 0;                 ///< in network byte order
  uint8_t family = 0;              ///< AF_INET or AF_INET6
};

/// The number in an attribute of this size; 0: it is absent or of another size.
template <typename Number>
Number numberIn(const nlattr* attribute) {
  Number number = 0;
  if (attribute != nullptr && mnl_attr_get_payload_len(attribute) == sizeof number) {
    std::memcpy(&number, mnl_attr_get_payload(attribute), sizeof number);
  }
  return number;
}

/// One dump of the table.
class FlowDump {
 public:
  enum class State { running, complete, failed };
  using Visit = std::function<void(const FlowEntry&)>;

  /// `flags` SOCK_NONBLOCK or 0. A dump that cannot start has failed, and the reason is logged.
  FlowDump(const FlowRequest& request, int flags);

  [[nodiscard]] int fd() const { return mnl_socket_get_fd(socket_.get()); }
  [[nodiscard]] State state() const { return state_; }

  /// Reads one reply and calls `visit` for each of its entries.
  State step(const Visit& visit);

 private:
  State fail(int error);

  MnlSocket socket_;
  std::vector<nlmsghdr> buffer_;
  State state_ = State::failed;
};

/// A dump on the event loop that ends flows.
class FlowSweep {
 public:
  class Judge {
   public:
    virtual ~Judge() = default;
    /// Whether the flow must end.
    [[nodiscard]] virtual bool ends(const FlowEntry& entry) = 0;
    /// The sweep is over. Not `complete`: because of an error, which is in the log, some flows were
    /// not offered or not ended. May destroy the sweep. Never called by its constructor.
    virtual void over(bool complete) = 0;
  };

  /// `judge` must outlive this.
  FlowSweep(const FlowRequest& request, Judge& judge);
  FlowSweep(const FlowSweep&) = delete;
  FlowSweep& operator=(const FlowSweep&) = delete;

 private:
  void readable(int);
  void destroy(const FlowEntry& entry);
  void end();

  Judge& judge_;
  MnlSocket killer_;  // for the deletions, each waits for its answer
  FlowDump dump_;
  bool allEnded_ = true;  // of the flows that had to end
  lm::Watch watch_;
  lm::Timer failed_;
};

}  // namespace lumen
