#include "platform/Store.h"

#include <utility>

#include "lumen/runtime/Fields.h"
#include "lumen/runtime/Log.h"
#include "lumen/runtime/RecordDirectory.h"

namespace lm {

class Store::State {
 public:
  State(std::string directory, uint32_t bound) : records(std::move(directory)), limit(bound) {}

  RecordDirectory records;
  uint32_t limit;
};

Store::Store(std::string directory, uint32_t limit)
    : state_(std::make_unique<State>(std::move(directory), limit)) {}

Store::~Store() = default;

std::optional<message> Store::get(uint32_t number) const {
  if (number >= state_->limit) return std::nullopt;
  return state_->records.read(number);
}

bool Store::set(uint32_t number, const message& record) {
  if (number >= state_->limit) {
    logLine("store: no record ", number);
    return false;
  }
  const auto pending = state_->records.prepare(number, withoutTransportFields(record));
  return pending && pending->commit();
}

}  // namespace lm
