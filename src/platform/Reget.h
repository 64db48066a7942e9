#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/Handler.h"

namespace lm {

/// Reads a whole table page by page and returns its records one by one. Each page is requested when
/// the previous one is used up.
class Reget {
 public:
  /// `request` holds the destination path and the command (key::command). Each exchange may take
  /// `limit` milliseconds. `handler` must outlive this.
  Reget(Handler& handler, message request, uint32_t limit = exchangeLimit);
  Reget(const Reget&) = delete;
  Reget& operator=(const Reget&) = delete;
  ~Reget();

  /// The next record. None after the last one and after an error, which is an error reply or a
  /// cursor that does not increase.
  [[nodiscard]] std::optional<message> pop();

  /// The error reply that ended the read, if any.
  [[nodiscard]] const std::optional<message>& error() const;

 private:
  class State;
  std::unique_ptr<State> state_;  // never null
};

/// Reads the stored records (cmd::readAll), whatever command `request` carries.
class FullReget : public Reget {
 public:
  FullReget(Handler& handler, message request, uint32_t limit = exchangeLimit);
};

}  // namespace lm
