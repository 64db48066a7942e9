#include "lumen/services/nat/NatMap.h"

#include <bit>
#include <string_view>
#include <utility>

namespace lumen {

namespace {

constexpr const char* tableName = "table ip lumen";
constexpr ElementSet forwards{.family = TableFamily::ip, .table = "lumen", .name = "forwards"};
constexpr ElementSet filtered{.family = TableFamily::ip, .table = "lumen", .name = "filtered"};

ElementPart addressPart(Ipv4Address address) { return std::bit_cast<ElementPart>(address.bytes()); }

ElementPart portPart(uint16_t port) { return {std::byte(port >> 8), std::byte(port & 0xff)}; }

ElementParts keyParts(const RuleKey& key) {
  return {
      addressPart(key.external.address), {std::byte(key.protocol)}, portPart(key.external.port)};
}

constexpr size_t plainParts = 3;
constexpr size_t filteredParts = 4;  // a remote network is the last

// The inverse of keyParts.
std::optional<RuleKey> readKey(const ElementParts& parts, size_t count) {
  if (parts.size() != count) return std::nullopt;
  const auto port =
      std::to_integer<unsigned>(parts[2][0]) << 8 | std::to_integer<unsigned>(parts[2][1]);
  return RuleKey{.external = {.address = Ipv4Address::fromBytes(std::bit_cast<uint32_t>(parts[0])),
                              .port = static_cast<uint16_t>(port)},
                 .protocol = std::to_integer<uint8_t>(parts[1][0])};
}

const ElementSet& setOf(const Rule& rule) { return rule.remotes.empty() ? forwards : filtered; }

std::vector<SetElement> elementsOf(const Rule& rule) {
  const SetElement plain = {.key = keyParts(rule.key),
                            .data = {addressPart(rule.client.address), portPart(rule.client.port)}};
  if (rule.remotes.empty()) return {plain};
  std::vector<SetElement> elements(rule.remotes.size(), plain);
  for (size_t i = 0; i < elements.size(); ++i) {
    elements[i].keyEnd = plain.key;
    elements[i].key.push_back(addressPart(rule.remotes[i].first()));
    elements[i].keyEnd.push_back(addressPart(rule.remotes[i].last()));
  }
  return elements;
}

// nft explains an error in several lines, the first of which says what it is.
std::string firstLine(const std::string& text) {
  std::string line = text.substr(0, text.find('\n'));
  return line.empty() ? "no reason given" : line;
}

constexpr const char* noCounter = "the element has no counter";

}  // namespace

Result<void> NatMap::open(const std::string& path) {
  const Result<std::string> tables = nftables_.run("list tables ip");
  if (!tables) return Failure{"cannot read the nftables tables: " + firstLine(tables.why())};
  if ((*tables + "\n").find(std::string(tableName) + "\n") != std::string::npos) {
    return Failure{
        "nftables table ip lumen exists already: another lumend runs in this "
        "network namespace, or another program made it"};
  }
  const Result<std::string> loaded = nftables_.runFile(path);
  if (!loaded) {
    return Failure{"cannot load the NAT ruleset " + path +
                   " (it needs Linux 5.12 or later): " + firstLine(loaded.why())};
  }
  const Result<std::string> table = nftables_.run("list table ip lumen");
  for (const char* part :
       {"\tflags owner\n", "\tmap forwards {\n",
        "\t\ttype ipv4_addr . inet_proto . inet_service : ipv4_addr . inet_service\n",
        "\t\tcounter\n", " map @forwards\n"}) {
    if (table && table->find(part) != std::string::npos) continue;
    // A table without an owner would outlive this process.
    static_cast<void>(nftables_.run("delete table ip lumen"));
    std::string_view words(part);
    words = words.substr(words.find_first_not_of("\t "));
    words.remove_suffix(1);
    return Failure{"the NAT ruleset " + path + " does not make a table ip lumen with \"" +
                   std::string(words) + "\""};
  }
  hasRemotes_ = true;
  for (const char* part :
       {"\tmap filtered {\n",
        "\t\ttype ipv4_addr . inet_proto . inet_service . ipv4_addr : ipv4_addr . inet_service\n",
        "\t\tflags interval\n", " map @filtered\n"}) {
    if (table->find(part) == std::string::npos) hasRemotes_ = false;
  }
  return {};
}

Result<void> NatMap::add(const Rule& rule) {
  const std::vector<SetElement> elements = elementsOf(rule);
  const ElementChange adding = {ElementAction::add, setOf(rule), elements};
  return nftables_.changeElements({&adding, 1});
}

Result<void> NatMap::remove(const std::vector<Rule>& rules) {
  std::vector<SetElement> plain;
  std::vector<SetElement> withRemotes;
  for (const Rule& rule : rules) {
    for (SetElement& element : elementsOf(rule)) {
      (rule.remotes.empty() ? plain : withRemotes).push_back(std::move(element));
    }
  }
  std::vector<ElementChange> removals;
  if (!plain.empty()) removals.push_back({ElementAction::remove, forwards, plain});
  if (!withRemotes.empty()) removals.push_back({ElementAction::remove, filtered, withRemotes});
  if (removals.empty()) return {};
  return nftables_.changeElements(removals);
}

Result<void> NatMap::change(const Rule& before, const Rule& after) {
  const Result<ElementCounter> counter = count(before);
  if (!counter) return counter.failure();
  const std::vector<SetElement> old = elementsOf(before);
  std::vector<SetElement> changed = elementsOf(after);
  changed.front().counter = *counter;
  const ElementChange changes[] = {{ElementAction::remove, setOf(before), old},
                                   {ElementAction::add, setOf(after), changed}};
  return nftables_.changeElements(changes);
}

Result<std::map<RuleKey, uint64_t>> NatMap::uses() {
  std::map<RuleKey, uint64_t> result;
  const auto read = nftables_.readElements(forwards, [&](const SetElement& element) {
    const auto key = readKey(element.key, plainParts);
    if (key && element.counter) result[*key] = element.counter->packets;
  });
  if (!read || !hasRemotes_) return read ? Result(std::move(result)) : read.failure();

  // An element may be visited twice.
  std::map<ElementParts, uint64_t> ofElement;
  const auto others = nftables_.readElements(filtered, [&](const SetElement& element) {
    if (element.counter) ofElement[element.key] = element.counter->packets;
  });
  if (!others) return others.failure();
  for (const auto& [parts, packets] : ofElement) {
    if (const auto key = readKey(parts, filteredParts)) result[*key] += packets;
  }
  return result;
}

Result<uint64_t> NatMap::uses(const Rule& rule) {
  const Result<ElementCounter> counter = count(rule);
  if (!counter) return counter.failure();
  return counter->packets;
}

Result<ElementCounter> NatMap::count(const Rule& rule) {
  ElementCounter sum;
  for (const SetElement& element : elementsOf(rule)) {
    const Result<SetElement> found = nftables_.readElement(setOf(rule), element.key);
    if (!found) return found.failure();
    if (!found->counter) return Failure{noCounter};
    sum.packets += found->counter->packets;
    sum.bytes += found->counter->bytes;
  }
  return sum;
}

}  // namespace lumen
