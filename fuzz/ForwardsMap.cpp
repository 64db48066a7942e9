#include "fuzz/ForwardsMap.h"

#include <charconv>
#include <utility>

#include "fuzz/Fuzz.h"
#include "lumen/values/Ipv4.h"
#include "services/nat/ElementCommand.h"

namespace fuzz {

namespace {

bool isPort(std::string_view text) {
  uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() && port != 0;
}

void checkKey(std::string_view key) {
  const std::string_view address = takeUpTo(key, " . ");
  const std::string_view protocol = takeUpTo(key, " . ");
  require(
      lumen::Ipv4Address::parse(address) && (protocol == "tcp" || protocol == "udp") && isPort(key),
      "a key is an address, a protocol and a port");
}

void checkClient(std::string_view client) {
  const std::string_view address = takeUpTo(client, " . ");
  require(lumen::Ipv4Address::parse(address) && isPort(client),
          "a client is an address and a port");
}

std::string counterOf(const ForwardsMap::Element& element) {
  return " counter packets " + std::to_string(element.packets) + " bytes " +
         std::to_string(element.packets * 100);
}

std::string textOf(const std::pair<const std::string, ForwardsMap::Element>& element) {
  return element.first + counterOf(element.second) + " : " + element.second.client;
}

/// As nft prints it.
std::string tableOf(const std::string& elements) {
  const std::string list = elements.empty() ? "" : "\t\telements = { " + elements + " }\n";
  return "table ip lumen {\n\tmap forwards {\n"
         "\t\ttype ipv4_addr . inet_proto . inet_service : ipv4_addr . inet_service\n"
         "\t\tcounter\n" +
         list + "\t}\n}\n";
}

/// What is between `head` and " }", which must be all of `line`. None when it begins otherwise.
std::optional<std::string_view> argumentOf(std::string_view line, std::string_view head) {
  if (!line.starts_with(head)) return std::nullopt;
  require(line.ends_with(" }"), "a command is complete");
  line.remove_suffix(2);
  return line.substr(head.size());
}

}  // namespace

lumen::Result<std::string> ForwardsMap::run(const std::string& commands) {
  if (commands == "list map ip lumen forwards") return text();
  if (refuses()) return lumen::Failure{"Error: refused\nsecond line"};
  if (const auto key = argumentOf(commands, "get element ip lumen forwards { ")) {
    return get(std::string(*key));
  }
  removed_.reset();
  for (std::string_view rest = commands; !rest.empty();) runLine(takeUpTo(rest, "\n"));
  return std::string();
}

lumen::Result<void> ForwardsMap::changeElements(lumen::ElementChange change,
                                                const lumen::ElementMap& map,
                                                std::span<const lumen::MapElement> elements) {
  const auto done = run(lumen::test::elementCommand(change, map, elements));
  return done ? lumen::Result<void>() : done.failure();
}

lumen::Result<std::string> ForwardsMap::runFile(const std::string& /*path*/) {
  require(false, "the ruleset is loaded at the start only");
  return std::string();
}

bool ForwardsMap::refuses() {
  if (!refusal_) return false;
  const bool now = *refusal_ == 0;
  refusal_ = now ? std::nullopt : std::optional(*refusal_ - 1);
  return now;
}

void ForwardsMap::runLine(std::string_view line) {
  if (const auto element = argumentOf(line, "add element ip lumen forwards { "))
    return add(*element);
  const auto keys = argumentOf(line, "delete element ip lumen forwards { ");
  require(keys.has_value(), "commands are known");
  remove(*keys);
}

void ForwardsMap::add(std::string_view element) {
  std::string_view client = element;
  std::string_view key = takeUpTo(client, " : ");
  const size_t behind = key.find(" counter ");
  const std::string counter(behind == std::string_view::npos ? "" : key.substr(behind));
  key = key.substr(0, behind);
  checkKey(key);
  checkClient(client);
  require(counter == (removed_ ? counterOf(*removed_) : ""), "what is changed keeps its counter");
  const uint64_t packets = removed_ ? removed_->packets : ++added_;
  removed_.reset();
  const bool isNew =
      elements_.try_emplace(std::string(key), Element{std::string(client), packets}).second;
  require(isNew, "what is there is not added");
}

void ForwardsMap::remove(std::string_view keys) {
  while (!keys.empty()) {
    const std::string key(takeUpTo(keys, ", "));
    checkKey(key);
    const auto element = elements_.find(key);
    require(element != elements_.end(), "what is not there is not removed");
    removed_ = std::move(element->second);
    elements_.erase(element);
  }
}

std::string ForwardsMap::get(const std::string& key) const {
  checkKey(key);
  const auto element = elements_.find(key);
  require(element != elements_.end(), "what is not there is not looked for");
  return tableOf(textOf(*element));
}

std::string ForwardsMap::text() const {
  std::string all;
  for (const auto& element : elements_) {
    if (!all.empty()) all += ",\n\t\t\t     ";
    all += textOf(element);
  }
  return tableOf(all);
}

}  // namespace fuzz
