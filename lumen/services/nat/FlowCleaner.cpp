#include "lumen/services/nat/FlowCleaner.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "lumen/runtime/Time.h"

namespace lumen {

namespace {

// Even when a sweep costs nothing, there are at most ten a second.
constexpr std::chrono::milliseconds leastRest(100);

// A sweep of 20 ms is followed by a rest of 180 ms.
constexpr int restPerSweep = 9;

}  // namespace

FlowCleaner::FlowCleaner(Flows& flows, const OpenPorts& ports, const FlowMarks& marks,
                         const lm::Clock& clock)
    : flows_(flows), ports_(ports), marks_(marks), clock_(clock) {}

void FlowCleaner::resume() {
  for (const Endpoint& external : marks_.all()) changed(external);
}

void FlowCleaner::changed(const Endpoint& external) {
  pending_.insert(external);
  if (!sweeping_ && !timer_.pending()) schedule();
}

void FlowCleaner::schedule() {
  const lm::Clock::Time now = clock_.now();
  timer_.start<&FlowCleaner::sweep>(*this, timerDelay(std::max(rest_, now) - now));
}

void FlowCleaner::sweep() {
  sweeping_ = true;
  began_ = clock_.now();
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
  sweeping_ = false;
  if (!complete) missed_ = std::exchange(swept_, {});
  for (const Endpoint& external : std::exchange(swept_, {})) {
    if (!ports_.isUdpOpen(external) && !pending_.contains(external)) marks_.clear(external);
  }
  const lm::Clock::Time now = clock_.now();
  rest_ = now + std::max(leastRest, restPerSweep * (now - began_));
  if (!pending_.empty()) schedule();
}

}  // namespace lumen
