#include "lumen/services/nat/NatMap.h"

#include <bit>
#include <string_view>

namespace lumen {

namespace {

constexpr const char* tableName = "table ip lumen";
constexpr ElementSet forwards{.family = TableFamily::ip, .table = "lumen", .name = "forwards"};

ElementPart addressPart(Ipv4Address address) { return std::bit_cast<ElementPart>(address.bytes()); }

ElementPart portPart(uint16_t port) { return {std::byte(port >> 8), std::byte(port & 0xff)}; }

ElementParts keyParts(const RuleKey& key) {
  return {
      addressPart(key.external.address), {std::byte(key.protocol)}, portPart(key.external.port)};
}

// The inverse of keyParts.
std::optional<RuleKey> readKey(const ElementParts& parts) {
  if (parts.size() != 3) return std::nullopt;
  const auto port =
      std::to_integer<unsigned>(parts[2][0]) << 8 | std::to_integer<unsigned>(parts[2][1]);
  return RuleKey{.external = {.address = Ipv4Address::fromBytes(std::bit_cast<uint32_t>(parts[0])),
                              .port = static_cast<uint16_t>(port)},
                 .protocol = std::to_integer<uint8_t>(parts[1][0])};
}

SetElement elementOf(const RuleKey& key, const Endpoint& client) {
  return {.key = keyParts(key), .data = {addressPart(client.address), portPart(client.port)}};
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
  return {};
}

Result<void> NatMap::add(const RuleKey& key, const Endpoint& client) {
  const SetElement element = elementOf(key, client);
  const ElementChange adding = {ElementAction::add, forwards, {&element, 1}};
  return nftables_.changeElements({&adding, 1});
}

Result<void> NatMap::remove(const std::vector<RuleKey>& keys) {
  if (keys.empty()) return {};
  std::vector<SetElement> elements;
  elements.reserve(keys.size());
  for (const RuleKey& key : keys) elements.push_back({.key = keyParts(key)});
  const ElementChange removal = {ElementAction::remove, forwards, elements};
  return nftables_.changeElements({&removal, 1});
}

Result<void> NatMap::change(const RuleKey& key, const Endpoint& client) {
  const Result<SetElement> before = nftables_.readElement(forwards, keyParts(key));
  if (!before) return before.failure();
  if (!before->counter) return Failure{noCounter};
  SetElement after = elementOf(key, client);
  after.counter = before->counter;
  const ElementChange changes[] = {{ElementAction::remove, forwards, {&after, 1}},
                                   {ElementAction::add, forwards, {&after, 1}}};
  return nftables_.changeElements(changes);
}

Result<std::map<RuleKey, uint64_t>> NatMap::uses() {
  std::map<RuleKey, uint64_t> result;
  const auto read = nftables_.readElements(forwards, [&](const SetElement& element) {
    const auto key = readKey(element.key);
    if (key && element.counter) result[*key] = element.counter->packets;
  });
  if (!read) return read.failure();
  return result;
}

Result<uint64_t> NatMap::uses(const RuleKey& key) {
  const Result<SetElement> element = nftables_.readElement(forwards, keyParts(key));
  if (!element) return element.failure();
  if (!element->counter) return Failure{noCounter};
  return element->counter->packets;
}

}  // namespace lumen
