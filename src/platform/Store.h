#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/message.h"

namespace lm {

/// Persisted, numbered messages: a directory with a file per record.
class Store {
 public:
  /// `directory` must exist and belong to the program's user. Record numbers are 0 up to, but not
  /// including, `limit`.
  Store(std::string directory, uint32_t limit);
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  ~Store();

  /// The record, or none. A record that cannot be read or decoded is renamed, which is logged, and
  /// counts as absent.
  [[nodiscard]] std::optional<message> get(uint32_t number) const;

  /// Replaces the whole record or leaves it unchanged. The transport fields of `record` are not
  /// stored. Returns false, after logging the system's error text, when it could not be written.
  bool set(uint32_t number, const message& record);

 private:
  class State;
  std::unique_ptr<State> state_;  // never null
};

}  // namespace lm
