#include "lumen/services/pinholes/PinholeFlows.h"

namespace lumen {

void PinholeFlows::begin(std::optional<uint32_t> label) {
  label_ = label;
  narrowed();
}

void PinholeFlows::narrowed() {
  if (label_) pace_.request();
}

void PinholeFlows::sweep() { flows_.sweepUdp(*label_, *this); }

}  // namespace lumen
