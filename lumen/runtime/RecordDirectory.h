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
  /// The second half of a write or a removal: a record under a temporary name, where the next start
  /// would remove it. Its destruction undoes what was not committed.
  class Pending {
   public:
    /// `commit` renames the file `temporary`, if that is not empty, to `committed`; destruction
    /// without it renames it to `otherwise`. An empty name removes the file.
    Pending(std::string temporary, std::string committed, std::string otherwise,
            std::string directory);
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;
    ~Pending();

    /// Returns false when it failed. A record that could not take its place leaves the old one
    /// there; one that could not be removed is under its temporary name and does not come back.
    bool commit();

   private:
    std::string temporary_;  // empty: settled
    std::string committed_;
    std::string otherwise_;
    std::string directory_;
  };

  /// `path` must exist and belong to the program's user.
  explicit RecordDirectory(std::string path);

  /// The numbers of all records, rising. Removes what an interrupted write has left.
  [[nodiscard]] std::vector<uint32_t> numbers() const;

  /// The record, or none. One that cannot be read or does not decode is renamed to
  /// "<number>.broken", so that the next write of this number does not overwrite it, and logged.
  [[nodiscard]] std::optional<message> read(uint32_t number) const;

  /// The first half of a write; null when it failed, then nothing is left of it. There is at most
  /// one pending write or removal of a number.
  [[nodiscard]] std::unique_ptr<Pending> prepare(uint32_t number, const message& record) const;

  /// The first half of a removal; null when it failed, then the record stays. A record that is not
  /// there can be removed.
  [[nodiscard]] std::unique_ptr<Pending> prepareRemoval(uint32_t number) const;

  /// Returns false when the record is there and could not be removed.
  bool remove(uint32_t number) const;

 private:
  [[nodiscard]] std::string fileOf(uint32_t number) const;

  std::string path_;
};

}  // namespace lm
