#include "fuzz/ForwardsMap.h"

#include <algorithm>
#include <utility>

#include "fuzz/Fuzz.h"
#include "services/nat/ElementCommand.h"

namespace fuzz {

namespace {

/// Whether it is the map for remote networks.
bool isFiltered(const lumen::ElementSet& set) {
  const std::string name = lumen::test::setText(set);
  require(name == "ip lumen forwards" || name == "ip lumen filtered",
          "the map is one of open ports");
  return name == "ip lumen filtered";
}

bool isPort(const lumen::ElementPart& part) {
  return (part[0] != std::byte{0} || part[1] != std::byte{0}) && part[2] == std::byte{0} &&
         part[3] == std::byte{0};
}

void checkKey(const lumen::ElementParts& key, bool filtered) {
  require(key.size() == (filtered ? 4 : 3) && isPort(key[2]),
          "a key is an address, a protocol and a port, then a remote network");
  const lumen::ElementPart tcp = {std::byte{6}};
  const lumen::ElementPart udp = {std::byte{17}};
  require(key[1] == tcp || key[1] == udp, "the protocol is TCP or UDP");
}

lumen::ElementCounter counterOf(uint64_t packets) {
  return {.packets = packets, .bytes = packets * 100};
}

/// As much as lumend looks at.
constexpr const char* table =
    "\tflags owner\n\tmap forwards {\n"
    "\t\ttype ipv4_addr . inet_proto . inet_service : ipv4_addr . inet_service\n\t\tcounter\n"
    "\tmap filtered {\n"
    "\t\ttype ipv4_addr . inet_proto . inet_service . ipv4_addr : ipv4_addr . inet_service\n"
    "\t\tflags interval\n map @forwards\n map @filtered\n";

lumen::Failure refused() { return {"refused"}; }

}  // namespace

lumen::Result<std::string> ForwardsMap::run(const std::string& commands) {
  require(commands.starts_with("list table"), "elements are changed by messages");
  return commands == "list table ip lumen" ? std::string(table) : std::string();
}

lumen::Result<std::string> ForwardsMap::runFile(const std::string& /*path*/) {
  return std::string();
}

lumen::Result<void> ForwardsMap::changeElements(std::span<const lumen::ElementChange> changes) {
  if (refuses()) return refused();
  removed_.reset();
  if (changes.size() > 1 && changes[1].action == lumen::ElementAction::add) {
    removed_.emplace();
  }
  for (const lumen::ElementChange& change : changes) {
    const bool filtered = isFiltered(change.set);
    for (const lumen::SetElement& element : change.elements) {
      if (change.action == lumen::ElementAction::add) {
        add(element, filtered);
      } else {
        remove(element, filtered);
      }
    }
  }
  return {};
}

lumen::Result<lumen::SetElement> ForwardsMap::readElement(const lumen::ElementSet& set,
                                                          const lumen::ElementParts& key) {
  if (refuses()) return refused();
  checkKey(key, isFiltered(set));
  const auto element =
      std::ranges::find(elements_, key, [](const auto& each) { return each.second.parts.key; });
  require(element != elements_.end(), "what is not there is not looked for");
  return lumen::SetElement{.key = key, .counter = counterOf(element->second.packets)};
}

lumen::Result<void> ForwardsMap::readElements(const lumen::ElementSet& set,
                                              const lumen::ElementVisitor& visit) {
  const size_t parts = isFiltered(set) ? 4 : 3;
  for (const auto& [key, element] : elements_) {
    if (element.parts.key.size() != parts) continue;
    visit({.key = element.parts.key, .counter = counterOf(element.packets)});
  }
  return {};
}

bool ForwardsMap::refuses() {
  if (!refusal_) return false;
  const bool now = *refusal_ == 0;
  refusal_ = now ? std::nullopt : std::optional(*refusal_ - 1);
  return now;
}

void ForwardsMap::add(const lumen::SetElement& element, bool filtered) {
  checkKey(element.key, filtered);
  require(element.data.size() == 2 && isPort(element.data[1]), "a client is an address and a port");
  // The first element of a rule that was changed goes on counting for all that it had.
  const auto kept = removed_ ? std::optional(counterOf(*removed_)) : std::nullopt;
  require(element.counter == kept, "what is changed keeps its counter");
  const uint64_t packets = removed_ ? *removed_ : ++added_;
  removed_.reset();
  const bool isNew =
      elements_
          .try_emplace(lumen::test::keyText(element.key, element.keyEnd),
                       Element{lumen::test::clientText(element.data), packets, element})
          .second;
  require(isNew, "what is there is not added");
}

void ForwardsMap::remove(const lumen::SetElement& element, bool filtered) {
  checkKey(element.key, filtered);
  const auto found = elements_.find(lumen::test::keyText(element.key, element.keyEnd));
  require(found != elements_.end(), "what is not there is not removed");
  if (removed_) *removed_ += found->second.packets;
  elements_.erase(found);
}

}  // namespace fuzz
