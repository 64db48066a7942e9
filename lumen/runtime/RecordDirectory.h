#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/message.h"

namespace lm {

/// A directory with a file per numbered record; a file holds the wire form of its message. A record
/// is replaced as a whole or stays as it was, whenever the power fails. Failures are logged here,
/// with the system's error text.
class RecordDirectory {
 public:
  /// A record that is written and synced under a temporary name. It takes its place at `commit`;
  /// otherwise it is removed at the end of this object, and the old record stays.
  class Pending {
   public:
    Pending(std::string temporary, std::string final, std::string directory);
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;
    ~Pending();

    /// Takes the place of the record. Returns false when it could not; then the old one stays.
    bool commit();

   private:
    std::string temporary_;  // empty: committed
    std::string final_;
    std::string directory_;
  };

  /// `path` must exist and belong to the program's user.
  explicit RecordDirectory(std::string path);

  /// The numbers of all records, rising. Removes what an interrupted write has left.
  [[nodiscard]] std::vector<uint32_t> numbers() const;

  /// The record, or none. One that cannot be read or does not decode is renamed to
  /// "<number>.broken", so that the next write of this number does not end it, and reported.
  [[nodiscard]] std::optional<message> read(uint32_t number) const;

  /// The first half of a write; null when it failed, then nothing is left of it. There is at most
  /// one pending write of a number.
  [[nodiscard]] std::unique_ptr<Pending> prepare(uint32_t number, const message& record) const;

  /// Returns false when the record is there and could not be removed.
  bool remove(uint32_t number) const;

 private:
  [[nodiscard]] std::string fileOf(uint32_t number) const;

  std::string path_;
};

}  // namespace lm
