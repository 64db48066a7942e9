#include "lumen/services/system/netfilter/ThriftyNftables.h"

#include <cstdlib>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace lumen {

namespace {

constexpr uint32_t restDelay = 100;  // hundredths of a second

void giveMemoryBack() {
#ifdef __GLIBC__
  // It keeps what lies below the highest allocation, for instance after a list of all ports.
  malloc_trim(0);
#endif
}

}  // namespace

Result<std::string> ThriftyNftables::run(const std::string& commands) {
  forgetSoon();
  return nftables_.run(commands);
}

Result<std::string> ThriftyNftables::runFile(const std::string& path) {
  forgetSoon();
  return nftables_.runFile(path);
}

Result<void> ThriftyNftables::changeElements(std::span<const ElementChange> changes) {
  forgetSoon();
  return nftables_.changeElements(changes);
}

// Takes and keeps next to nothing.
Result<SetElement> ThriftyNftables::readElement(const ElementSet& set, const ElementParts& key) {
  return nftables_.readElement(set, key);
}

Result<void> ThriftyNftables::readElements(const ElementSet& set, const ElementVisitor& visit) {
  forgetSoon();
  return nftables_.readElements(set, visit);
}

void ThriftyNftables::forget() {
  rest_.stop();
  nftables_.forget();
  giveMemoryBack();
}

void ThriftyNftables::forgetSoon() { rest_.start<&ThriftyNftables::forget>(*this, restDelay); }

}  // namespace lumen
