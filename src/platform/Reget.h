#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/Handler.h"

namespace lm {

/// Reads a whole table page by page and hands out its records one by one. A page is asked for when
/// the one before is used up.
class Reget {
 public:
  /// `request` holds the destination path and the command (key::command). Each exchange may take
  /// `limit` milliseconds. `handler` must outlive this.
  Reget(Handler& handler, message request, uint32_t limit = exchangeLimit);
  Reget(const Reget&) = delete;
  Reget& operator=(const Reget&) = delete;
  ~Reget();

  /// The next record; none after the last one and after an error: an error reply, or a cursor
  /// that does not rise.
  [[nodiscard]] std::optional<message> pop();

  /// The error reply that ended the reading, if one did.
  [[nodiscard]] const std::optional<message>& error() const;

 private:
  class State;
  std::unique_ptr<State> state_;  // never null
};

/// The same for the records as they are kept (cmd::readAll), whatever command `request` carries.
class FullReget : public Reget {
 public:
  FullReget(Handler& handler, message request, uint32_t limit = exchangeLimit);
};

}  // namespace lm
