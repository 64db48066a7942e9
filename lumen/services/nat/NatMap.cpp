#include "lumen/services/nat/NatMap.h"

#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <string_view>

#include "lumen/runtime/Log.h"

namespace lumen {

namespace {

constexpr const char* tableName = "table ip lumen";

// "45.45.45.1 . tcp . 8080"
std::string keyElement(const RuleKey& key) {
  return key.external.address.text() + " . " + protocolText(key.protocol) + " . " +
         std::to_string(key.external.port);
}

// "192.168.88.10 . 80"
std::string clientElement(const Endpoint& client) {
  return client.address.text() + " . " + std::to_string(client.port);
}

std::string addCommand(const RuleKey& key, const std::string& counter, const Endpoint& client) {
  return "add element ip lumen forwards { " + keyElement(key) + counter + " : " +
         clientElement(client) + " }";
}

std::string getCommand(const RuleKey& key) {
  return "get element ip lumen forwards { " + keyElement(key) + " }";
}

std::string deleteCommand(const std::vector<RuleKey>& keys) {
  std::string text = "delete element ip lumen forwards { ";
  for (const RuleKey& key : keys) {
    if (&key != &keys.front()) text += ", ";
    text += keyElement(key);
  }
  return text + " }";
}

// nft explains an error in several lines, the first of which says what it is.
std::string firstLine(const std::string& text) {
  std::string line = text.substr(0, text.find('\n'));
  return line.empty() ? "no reason given" : line;
}

// The number that follows `word` in `text`, moving `text` behind it.
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

constexpr std::string_view packetsWord = " counter packets ";

// What is left of `text` before `separator`, moving `text` behind that.
std::string_view upTo(std::string_view& text, std::string_view separator) {
  const size_t at = std::min(text.find(separator), text.size());
  const std::string_view part = text.substr(0, at);
  text.remove_prefix(std::min(at + separator.size(), text.size()));
  return part;
}

// The other way round than keyElement.
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

std::optional<std::string> NatMap::open(const std::string& path) {
  Nftables::Result tables = nftables_.run("list tables ip");
  if (!tables.done) return "cannot read the nftables tables: " + firstLine(tables.text);
  if ((tables.text + "\n").find(std::string(tableName) + "\n") != std::string::npos) {
    return std::string(
        "nftables table ip lumen exists already: another lumend runs in this "
        "network namespace, or somebody else made it");
  }
  Nftables::Result loaded = nftables_.runFile(path);
  if (!loaded.done) {
    return "cannot load the NAT ruleset " + path +
           " (it needs Linux 5.12 or later): " + firstLine(loaded.text);
  }
  Nftables::Result table = nftables_.run("list table ip lumen");
  for (const char* part :
       {"\tflags owner\n", "\tmap forwards {\n",
        "\t\ttype ipv4_addr . inet_proto . inet_service : ipv4_addr . inet_service\n",
        "\t\tcounter\n", " map @forwards\n"}) {
    if (table.done && table.text.find(part) != std::string::npos) continue;
    // A table without an owner would stay behind.
    static_cast<void>(nftables_.run("delete table ip lumen"));
    std::string_view words(part);
    words = words.substr(words.find_first_not_of("\t "));
    words.remove_suffix(1);
    return "the NAT ruleset " + path + " does not make a table ip lumen with \"" +
           std::string(words) + "\"";
  }
  return std::nullopt;
}

std::optional<std::string> NatMap::add(const RuleKey& key, const Endpoint& client) {
  return run(addCommand(key, "", client));
}

std::optional<std::string> NatMap::remove(const std::vector<RuleKey>& keys) {
  if (keys.empty()) return std::nullopt;
  return run(deleteCommand(keys));
}

std::optional<std::string> NatMap::change(const RuleKey& key, const Endpoint& client) {
  Nftables::Result element = nftables_.run(getCommand(key));
  if (!element.done) return firstLine(element.text);
  auto counter = counterOf(element.text);
  if (!counter) return "the element has no counter";
  return run(deleteCommand({key}) + "\n" + addCommand(key, *counter, client));
}

std::optional<std::map<RuleKey, uint64_t>> NatMap::uses() {
  const Nftables::Result listed = nftables_.run("list map ip lumen forwards");
  if (!listed.done) {
    lm::logLine("nat uses failed: ", firstLine(listed.text));
    return std::nullopt;
  }
  std::map<RuleKey, uint64_t> result;
  std::string_view rest = listed.text;
  while (true) {
    std::string_view element = rest.substr(0, rest.find(packetsWord));
    element.remove_prefix(std::min(element.find_last_of("{,") + 1, element.size()));
    element.remove_prefix(std::min(element.find_first_not_of(" \t\n"), element.size()));
    const auto packets = numberAfter(rest, packetsWord);
    if (!packets) return result;
    if (const auto key = readKey(element)) result[*key] = *packets;
  }
}

std::optional<uint64_t> NatMap::uses(const RuleKey& key) {
  const Nftables::Result element = nftables_.run(getCommand(key));
  std::string_view text = element.text;
  return element.done ? numberAfter(text, packetsWord) : std::nullopt;
}

std::optional<std::string> NatMap::run(const std::string& commands) {
  Nftables::Result result = nftables_.run(commands);
  if (result.done) return std::nullopt;
  return firstLine(result.text);
}

}  // namespace lumen
