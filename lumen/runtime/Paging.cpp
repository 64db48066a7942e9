#include "lumen/runtime/Paging.h"

#include <utility>

#include "lumen/runtime/Codec.h"
#include "platform/Keys.h"

namespace lm {
namespace {

/// Room in a datagram for the transport fields, the cursor and the array's own key, in bytes.
constexpr size_t roomForRest = 1024;

}  // namespace

Page::Page(const message& request) {
  const uint32_t cursor = request.get_u32(key::cursor, none);
  if (cursor != none) cursor_ = cursor;
}

bool Page::add(uint32_t id, message record) {
  if (records_.size() == pageSize) return false;
  const size_t size = encode(record).size() + sizeof(uint32_t);
  if (!records_.empty() && bytes_ + size > maxDatagram - roomForRest) return false;
  bytes_ += size;
  last_ = id;
  records_.push_back(std::move(record));
  return true;
}

message Page::answer(bool more) && {
  message result;
  result.insert_message_array(key::records, std::move(records_));
  result.insert_u32(key::cursor, more ? last_ : none);
  return result;
}

}  // namespace lm
