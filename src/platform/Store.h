#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/message.h"

namespace lm {

/// Numbered messages that survive the end of the program: a directory, a file per record.
class Store {
 public:
  /// `directory` must exist and belong to the program's user. Records are numbered from 0 and
  /// below `limit`.
  Store(std::string directory, uint32_t limit);
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  ~Store();

  /// The record, or none when there is none. One that cannot be read or does not decode is set
  /// aside under another name and reported in the log, then there is none.
  [[nodiscard]] std::optional<message> get(uint32_t number) const;

  /// Replaces the record as a whole or leaves it as it was. The transport fields of `record` are
  /// not kept. Returns false, and logs the system's error text, when it could not be written.
  bool set(uint32_t number, const message& record);

 private:
  class State;
  std::unique_ptr<State> state_;  // never null
};

}  // namespace lm
