#include "fuzz/ForwardsMap.h"

#include <utility>

#include "fuzz/Fuzz.h"
#include "services/nat/ElementCommand.h"

namespace fuzz {

namespace {

void checkSet(const lumen::ElementSet& set) {
  require(lumen::test::setText(set) == "ip lumen forwards", "the map is that of open ports");
}

bool isPort(const lumen::ElementPart& part) {
  return (part[0] != std::byte{0} || part[1] != std::byte{0}) && part[2] == std::byte{0} &&
         part[3] == std::byte{0};
}

void checkKey(const lumen::ElementParts& key) {
  require(key.size() == 3 && isPort(key[2]), "a key is an address, a protocol and a port");
  const lumen::ElementPart tcp = {std::byte{6}};
  const lumen::ElementPart udp = {std::byte{17}};
  require(key[1] == tcp || key[1] == udp, "the protocol is TCP or UDP");
}

lumen::ElementCounter counterOf(const ForwardsMap::Element& element) {
  return {.packets = element.packets, .bytes = element.packets * 100};
}

lumen::Failure refused() { return {"refused"}; }

}  // namespace

lumen::Result<std::string> ForwardsMap::run(const std::string& /*commands*/) {
  require(false, "elements are changed by messages");
  return std::string();
}

lumen::Result<std::string> ForwardsMap::runFile(const std::string& /*path*/) {
  require(false, "the ruleset is loaded at the start only");
  return std::string();
}

lumen::Result<void> ForwardsMap::changeElements(std::span<const lumen::ElementChange> changes) {
  if (refuses()) return refused();
  removed_.reset();
  for (const lumen::ElementChange& change : changes) {
    checkSet(change.set);
    for (const lumen::SetElement& element : change.elements) {
      if (change.action == lumen::ElementAction::add) {
        add(element);
      } else {
        remove(element);
      }
    }
  }
  return {};
}

lumen::Result<lumen::SetElement> ForwardsMap::readElement(const lumen::ElementSet& set,
                                                          const lumen::ElementParts& key) {
  if (refuses()) return refused();
  checkSet(set);
  checkKey(key);
  const auto element = elements_.find(lumen::test::keyText(key));
  require(element != elements_.end(), "what is not there is not looked for");
  return lumen::SetElement{.key = key, .counter = counterOf(element->second)};
}

lumen::Result<void> ForwardsMap::readElements(const lumen::ElementSet& set,
                                              const lumen::ElementVisitor& visit) {
  checkSet(set);
  for (const auto& [key, element] : elements_) {
    visit({.key = keys_[key], .counter = counterOf(element)});
  }
  return {};
}

bool ForwardsMap::refuses() {
  if (!refusal_) return false;
  const bool now = *refusal_ == 0;
  refusal_ = now ? std::nullopt : std::optional(*refusal_ - 1);
  return now;
}

void ForwardsMap::add(const lumen::SetElement& element) {
  checkKey(element.key);
  require(element.data.size() == 2 && isPort(element.data[1]), "a client is an address and a port");
  const auto kept = removed_ ? std::optional(counterOf(*removed_)) : std::nullopt;
  require(element.counter == kept, "what is changed keeps its counter");
  const uint64_t packets = removed_ ? removed_->packets : ++added_;
  removed_.reset();
  const std::string key = lumen::test::keyText(element.key);
  keys_[key] = element.key;
  const bool isNew =
      elements_.try_emplace(key, Element{lumen::test::clientText(element.data), packets}).second;
  require(isNew, "what is there is not added");
}

void ForwardsMap::remove(const lumen::SetElement& element) {
  checkKey(element.key);
  const auto found = elements_.find(lumen::test::keyText(element.key));
  require(found != elements_.end(), "what is not there is not removed");
  removed_ = std::move(found->second);
  elements_.erase(found);
}

}  // namespace fuzz
