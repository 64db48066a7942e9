#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "platform/message.h"

namespace lm {

/// The most records that one page holds.
inline constexpr size_t pageSize = 64;

/// One page of a table, the answer to cmd::list and cmd::readAll. Records come in rising order of
/// id; the page ends after pageSize records, or before one that the datagram has no room for.
class Page {
 public:
  /// The page that follows the cursor of `request`; without one, the first.
  explicit Page(const message& request);

  /// The id that the records of this page come after, if any.
  [[nodiscard]] const std::optional<uint32_t>& cursor() const { return cursor_; }

  /// Adds the record of `id`, which must be higher than those before. False when the page is full;
  /// nothing is added then.
  [[nodiscard]] bool add(uint32_t id, message record);

  /// The answer. `more`: records follow on a next page.
  [[nodiscard]] message answer(bool more) &&;

 private:
  std::optional<uint32_t> cursor_;
  std::vector<message> records_;
  size_t bytes_ = 0;   // of the records on the wire
  uint32_t last_ = 0;  // id of the last record
};

/// The paged answer of `table`, a std::map by id; `makeRecord(id, value)` gives an entry's record.
template <typename Table, typename MakeRecord>
[[nodiscard]] message pagedAnswer(const message& request, const Table& table,
                                  MakeRecord makeRecord) {
  Page page(request);
  auto next = page.cursor() ? table.upper_bound(*page.cursor()) : table.begin();
  for (; next != table.end(); ++next) {
    if (!page.add(next->first, makeRecord(next->first, next->second))) {
      return std::move(page).answer(true);
    }
  }
  return std::move(page).answer(false);
}

}  // namespace lm
