#include "lumen/services/interfaces/KeptNames.h"

#include <net/if.h>

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include "lumen/runtime/Log.h"
#include "platform/Keys.h"
#include "platform/wire/Interfaces.h"

namespace lumen {
namespace {

namespace key = lm::interfaces::key;

constexpr uint32_t recordNumber = 0;

}  // namespace

// As dev_valid_name of the kernel (net/core/dev.c), whose table of characters counts 0xA0 as a
// blank.
bool KeptNames::isName(const std::string& name) {
  if (name.empty() || name.size() >= IFNAMSIZ || name == "." || name == ".." || name == "lo") {
    return false;
  }
  return std::none_of(name.begin(), name.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte == '/' || byte == ':' || byte == ' ' || (byte >= 9 && byte <= 13) || byte == 0xA0 ||
           byte == 0;
  });
}

KeptNames::KeptNames(lm::Store& store, Listener& listener) : store_(store), listener_(listener) {
  load();
  tellInternal();
}

void KeptNames::load() {
  const auto stored = store_.get(recordNumber);
  if (!stored) return;
  std::set<uint32_t> ids;
  for (const lm::message& m : stored->get_message_array_ref(lm::key::records)) {
    const std::string name = m.get_string(key::name);
    const Kept kept{m.get_u32(lm::key::objectId), m.get_u32(key::role)};
    const bool hasRole =
        kept.role == lm::interfaces::roleExternal || kept.role == lm::interfaces::roleInternal;
    const bool hasId = kept.id != 0 && kept.id != lm::none;
    if (!isName(name) || !hasRole || !hasId || names_.contains(name) ||
        !ids.insert(kept.id).second) {
      lm::logLine("interfaces: a stored name is wrong and left out");
      continue;
    }
    names_[name] = kept;
  }
}

Result<void> KeptNames::keep(const std::string& name, const Kept& kept) {
  Names names = names_;
  names[name] = kept;
  return change(std::move(names));
}

Result<void> KeptNames::forget(const std::string& name) {
  Names names = names_;
  names.erase(name);
  return change(std::move(names));
}

Result<void> KeptNames::change(Names names) {
  std::vector<lm::message> records;
  for (const auto& [name, kept] : names) {
    lm::message m;
    m.insert_u32(lm::key::objectId, kept.id);
    m.insert_string(key::name, name);
    m.insert_u32(key::role, kept.role);
    records.push_back(std::move(m));
  }
  lm::message all;
  all.insert_message_array(lm::key::records, std::move(records));
  if (!store_.set(recordNumber, all)) return Failure{"the name could not be stored"};
  names_ = std::move(names);
  tellInternal();
  return {};
}

void KeptNames::tellInternal() {
  std::set<std::string> internal;
  for (const auto& [name, kept] : names_) {
    if (kept.role == lm::interfaces::roleInternal) internal.insert(name);
  }
  listener_.internalNames(std::move(internal));
}

}  // namespace lumen
