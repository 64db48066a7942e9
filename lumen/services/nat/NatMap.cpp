#include "lumen/services/nat/NatMap.h"

#include <netinet/in.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <string_view>

namespace lumen {

namespace {

constexpr const char* tableName = "table ip lumen";
constexpr ElementMap forwards{.table = "lumen", .name = "forwards"};

ElementPart addressPart(Ipv4Address address) { return std::bit_cast<ElementPart>(address.bytes()); }

ElementPart portPart(uint16_t port) { return {std::byte(port >> 8), std::byte(port & 0xff)}; }

MapElement mapElement(const RuleKey& key, const Endpoint& client) {
  return {.key = {addressPart(key.external.address),
                  {std::byte(key.protocol)},
                  portPart(key.external.port)},
          .client = {addressPart(client.address), portPart(client.port)}};
}

// "45.45.45.1 . tcp . 8080"
std::string keyElement(const RuleKey& key) {
  return key.external.address.text() + " . " + protocolText(key.protocol) + " . " +
         std::to_string(key.external.port);
}

// "192.168.88.10 . 80"
std::string clientElement(const Endpoint& client) {
  return client.address.text() + " . " + std::to_string(client.port);
}

std::string getCommand(const RuleKey& key) {
  return "get element ip lumen forwards { " + keyElement(key) + " }";
}

// nft explains an error in several lines, the first of which says what it is.
std::string firstLine(const std::string& text) {
  std::string line = text.substr(0, text.find('\n'));
  return line.empty() ? "no reason given" : line;
}

// The number after `word` in `text`, which is cut to what follows the number.
std::optional<uint64_t> numberAfter(std::string_view& text, std::string_view word) {
  size_t at = text.find(word);
  if (at == std::string_view::npos) return std::nullopt;
  text.remove_prefix(at + word.size());
  uint64_t number = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<size_t>(end - text.data()));
  return number;
}

constexpr const char* noCounter = "the element has no counter";

constexpr std::string_view packetsWord = " counter packets ";

// The part of `text` before `separator`, which is cut to what follows the separator.
std::string_view upTo(std::string_view& text, std::string_view separator) {
  const size_t at = std::min(text.find(separator), text.size());
  const std::string_view part = text.substr(0, at);
  text.remove_prefix(std::min(at + separator.size(), text.size()));
  return part;
}

// The inverse of keyElement.
std::optional<RuleKey> readKey(std::string_view element) {
  const auto address = Ipv4Address::parse(upTo(element, " . "));
  const std::string_view protocol = upTo(element, " . ");
  RuleKey key;
  // A number where /etc/protocols is missing, as on a small router.
  for (const uint8_t known : {uint8_t{IPPROTO_TCP}, uint8_t{IPPROTO_UDP}}) {
    if (protocol == protocolText(known) || protocol == std::to_string(known)) key.protocol = known;
  }
  const char* const last = element.data() + element.size();
  const auto [end, error] = std::from_chars(element.data(), last, key.external.port);
  if (!address || key.protocol == 0 || error != std::errc() || end != last) return std::nullopt;
  key.external.address = *address;
  return key;
}

// " counter packets 7 bytes 900" out of nft's answer to "get element".
std::optional<std::string> counterOf(std::string_view element) {
  auto packets = numberAfter(element, packetsWord);
  auto bytes = packets ? numberAfter(element, " bytes ") : std::nullopt;
  if (!bytes) return std::nullopt;
  return " counter packets " + std::to_string(*packets) + " bytes " + std::to_string(*bytes);
}

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
  const MapElement element = mapElement(key, client);
  return nftables_.changeElements(ElementChange::add, forwards, {&element, 1});
}

Result<void> NatMap::remove(const std::vector<RuleKey>& keys) {
  if (keys.empty()) return {};
  std::vector<MapElement> elements;
  elements.reserve(keys.size());
  for (const RuleKey& key : keys) elements.push_back(mapElement(key, {}));
  return nftables_.changeElements(ElementChange::remove, forwards, elements);
}

Result<void> NatMap::change(const RuleKey& key, const Endpoint& client) {
  const Result<std::string> element = nftables_.run(getCommand(key));
  if (!element) return Failure{firstLine(element.why())};
  auto counter = counterOf(*element);
  if (!counter) return Failure{noCounter};
  const std::string name = keyElement(key);
  const auto changed = nftables_.run("delete element ip lumen forwards { " + name +
                                     " }\nadd element ip lumen forwards { " + name + *counter +
                                     " : " + clientElement(client) + " }");
  if (!changed) return Failure{firstLine(changed.why())};
  return {};
}

Result<std::map<RuleKey, uint64_t>> NatMap::uses() {
  const Result<std::string> listed = nftables_.run("list map ip lumen forwards");
  if (!listed) return Failure{firstLine(listed.why())};
  std::map<RuleKey, uint64_t> result;
  std::string_view rest = *listed;
  while (true) {
    std::string_view element = rest.substr(0, rest.find(packetsWord));
    element.remove_prefix(std::min(element.find_last_of("{,") + 1, element.size()));
    element.remove_prefix(std::min(element.find_first_not_of(" \t\n"), element.size()));
    const auto packets = numberAfter(rest, packetsWord);
    if (!packets) return result;
    if (const auto key = readKey(element)) result[*key] = *packets;
  }
}

Result<uint64_t> NatMap::uses(const RuleKey& key) {
  const Result<std::string> element = nftables_.run(getCommand(key));
  if (!element) return Failure{firstLine(element.why())};
  std::string_view text = *element;
  const auto packets = numberAfter(text, packetsWord);
  if (!packets) return Failure{noCounter};
  return *packets;
}

}  // namespace lumen
