#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "lumen/services/broker/Peer.h"
#include "lumen/services/broker/Rights.h"
#include "platform/Fd.h"
#include "platform/Timer.h"
#include "platform/Watch.h"

namespace lumen {

/// The broker's end of one program's socket. It never waits for the program: what the program does
/// not read is queued up to a limit.
class Connection {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    /// The program has sent a datagram. `from` must not be destroyed before this returns.
    virtual void received(Connection& from, std::string_view datagram) = 0;
    /// The connection is to be destroyed; `why` says why the broker ended it, empty: the program
    /// did. Called from the event loop or from drain, never from inside another operation.
    virtual void ended(Connection& connection, const std::string& why) = 0;
  };

  /// Unsent bytes at which a program counts as one that does not read.
  static constexpr size_t queueLimit = 4UL * 1024 * 1024;

  Connection(Owner& owner, uint64_t number, Peer peer, Rights rights, lm::Fd socket);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Sends a datagram of at most lm::maxDatagram bytes, now or when the program reads.
  void send(std::string datagram);
  /// Ends the connection in the next turn of the loop; nothing is sent or received any more.
  void drop(std::string why);
  /// The program has ended: handles everything that it has sent, then ends the connection, even if
  /// another process still holds the other end.
  void drain();

  [[nodiscard]] uint64_t number() const { return number_; }
  [[nodiscard]] const Peer& peer() const { return peer_; }
  [[nodiscard]] const Rights& rights() const { return rights_; }

  /// The services that it serves now, the first one first.
  std::vector<uint32_t> serves;
  size_t subscriptions = 0;
  /// Its requests that are not answered yet.
  size_t requests = 0;
  /// The serial of its latest request, and what undoes that; empty: nothing to undo. It is kept
  /// until the program sends another request.
  uint32_t latest = 0;
  std::function<void()> undo;

 private:
  enum class Received { datagram, nothing, end };
  enum class Sent { whole, notNow, never };

  void ready(int fd);
  void finish();
  Received receive();
  Sent trySend(const std::string& datagram);
  void sendQueue();
  void watch();

  Owner& owner_;
  const uint64_t number_;
  const Peer peer_;
  const Rights rights_;
  lm::Fd socket_;
  lm::Watch watch_;
  std::deque<std::string> queue_;
  size_t queued_ = 0;        // bytes in queue_
  bool sendClosed_ = false;  // the program reads no more, but may have sent something
  bool dropped_ = false;
  std::string why_;
  lm::Timer finish_;
};

}  // namespace lumen
