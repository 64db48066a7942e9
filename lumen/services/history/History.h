#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "lumen/runtime/RecordDirectory.h"
#include "lumen/services/LocalHandler.h"
#include "platform/message.h"

namespace lumen {

/// The latest changes of this router, each with the message that undoes it. They survive the end of
/// the process. platform/wire/History.h describes the fields.
class History : public LocalHandler {
 public:
  /// How many changes are kept; one more replaces the oldest.
  static constexpr size_t capacity = 100;
  static constexpr size_t longestText = 200;          ///< in bytes
  static constexpr size_t longestUndo = 64UL * 1024;  ///< in bytes on the wire

  using WallClock = std::chrono::sys_seconds (*)();

  /// `storePath` is a store directory that belongs to this program's user. `notifier` must outlive
  /// this.
  History(std::string storePath, Notifier& notifier, WallClock clock = systemTime);

  [[nodiscard]] lm::message handle(const Caller& caller, uint32_t command,
                                   const lm::message& request) override;
  [[nodiscard]] bool isPrivate() const override { return true; }

 private:
  static std::chrono::sys_seconds systemTime();

  [[nodiscard]] lm::message add(const Caller& caller, const lm::message& request);
  [[nodiscard]] lm::message read(const lm::message& request) const;
  [[nodiscard]] lm::message remove(const lm::message& request);

  lm::RecordDirectory store_;
  Notifier& notifier_;
  const WallClock clock_;
  std::map<uint32_t, lm::message> entries_;  // by id, which rises
  uint32_t lastId_ = 0;
};

}  // namespace lumen
