#include "lumen/services/interfaces/InterfaceIds.h"

#include <algorithm>

namespace lumen {

uint32_t InterfaceIds::take(const std::string& name) {
  Known& known = names_[name];
  if (known.id == 0) known.id = ++last_;
  released_.erase(known.released);
  known.released = 0;
  return known.id;
}

void InterfaceIds::restore(const std::string& name, uint32_t id) {
  names_[name] = {id, 0};
  last_ = std::max(last_, id);
}

void InterfaceIds::release(const std::string& name) {
  const auto known = names_.find(name);
  if (known == names_.end() || known->second.released != 0) return;
  known->second.released = ++releases_;
  released_.emplace(releases_, name);
  if (released_.size() <= rememberedNames) return;
  const auto oldest = released_.begin();
  names_.erase(oldest->second);
  released_.erase(oldest);
}

}  // namespace lumen
