#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "lumen/ctl/Session.h"
#include "lumen/ctl/monitor/MessageNames.h"
#include "lumen/ctl/router/Records.h"
#include "platform/message.h"

namespace lumenctl {

/// A message that passed between programs, in words.
struct TracedMessage {
  using Time = std::chrono::sys_time<std::chrono::milliseconds>;
  enum class Kind {
    request,
    reply,
    error,
    notification,
    message,  ///< none of these
  };

  /// On one line, after the time of day.
  [[nodiscard]] std::string line() const;
  [[nodiscard]] Json json() const;

  Time time;
  std::string from;
  std::string to;
  Kind kind = Kind::message;
  std::string command;  ///< of a reply that of its request; empty: not known
  Subject subject;      ///< what it is about
  lm::message message;
  std::string error;  ///< the text of an error
  bool cut = false;   ///< it was too long or too deep to be shown whole
};

/// Reads what the broker shows of what passes. It remembers the requests under way, since a reply
/// does not say what it answers.
class Monitor {
 public:
  explicit Monitor(const std::vector<Service>& services);

  /// `shown` has the fields of lm::monitor::key.
  [[nodiscard]] TracedMessage read(const lm::message& shown, TracedMessage::Time time);

  /// How many requests it remembers.
  [[nodiscard]] size_t pending() const { return pending_.size(); }

 private:
  struct Request {
    Subject subject;
    uint32_t command = 0;
  };

  [[nodiscard]] std::string nameOf(uint32_t number, uint32_t handler = 0) const;

  std::map<uint32_t, std::string> names_;  // of services
  /// By the number of the requester and its serial.
  std::map<std::pair<uint32_t, uint32_t>, Request> pending_;
};

}  // namespace lumenctl
