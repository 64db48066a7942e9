#include "lumen/services/nat/FlowCleaner.h"

#include <utility>

namespace lumen {

FlowCleaner::FlowCleaner(Flows& flows, const OpenPorts& ports, const FlowMarks& marks,
                         const lm::Clock& clock)
    : flows_(flows), ports_(ports), marks_(marks), pace_(*this, clock) {}

void FlowCleaner::resume() {
  for (const Endpoint& external : marks_.all()) changed(external);
}

void FlowCleaner::changed(const Endpoint& external) {
  pending_.insert(external);
  pace_.request();
}

void FlowCleaner::sweep() {
  swept_ = std::exchange(pending_, {});
  swept_.merge(std::exchange(missed_, {}));
  flows_.sweepUdp(swept_, *this);
}

bool FlowCleaner::ends(const Flow& flow) {
  // What is not the rule's goes to this router.
  return ports_.udpClient(flow.destination, flow.source).value_or(flow.destination) !=
         flow.responder;
}

void FlowCleaner::swept(bool complete) {
  if (!complete) missed_ = std::exchange(swept_, {});
  for (const Endpoint& external : std::exchange(swept_, {})) {
    if (!ports_.isUdpOpen(external) && !pending_.contains(external)) marks_.clear(external);
  }
  pace_.over();
}

}  // namespace lumen
