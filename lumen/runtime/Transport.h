#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace lm {

/// This program's end of the connection to the other programs. It carries datagrams, each the wire
/// form of one message.
class Transport {
 public:
  enum class Status {
    done,
    wouldBlock,
    ended,  ///< the connection is over, permanently
  };

  Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;
  virtual ~Transport() = default;

  /// Sends one datagram as a whole. Never waits.
  [[nodiscard]] virtual Status send(std::string_view datagram) = 0;
  /// Takes the next datagram; one that is longer than maxDatagram is cut, but stays too long.
  /// Never waits.
  [[nodiscard]] virtual Status receive(std::string& datagram) = 0;
  /// Waits at most `limit` until there is something to receive, or, if `toSend`, room to send. May
  /// return before.
  virtual void wait(std::chrono::milliseconds limit, bool toSend) = 0;
  /// To be watched by an event loop; -1: none.
  [[nodiscard]] virtual int fd() const = 0;
};

}  // namespace lm
