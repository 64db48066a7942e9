#include "lumen/services/nat/NatMap.h"

#include <charconv>
#include <cstdint>
#include <string_view>

namespace lumen {

namespace {

constexpr const char* tableName = "table ip lumen";

// "45.45.45.1 . tcp . 8080"
std::string keyElement(const RuleKey& key) {
  return addressText(key.external.address) + " . " + protocolText(key.protocol) + " . " +
         std::to_string(key.external.port);
}

// "192.168.88.10 . 80"
std::string clientElement(const Endpoint& client) {
  return addressText(client.address) + " . " + std::to_string(client.port);
}

std::string addCommand(const RuleKey& key, const std::string& counter, const Endpoint& client) {
  return "add element ip lumen forwards { " + keyElement(key) + counter + " : " +
         clientElement(client) + " }";
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

// " counter packets 7 bytes 900" out of nft's answer to "get element".
std::optional<std::string> counterOf(std::string_view element) {
  auto packets = numberAfter(element, " counter packets ");
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
  Nftables::Result element =
      nftables_.run("get element ip lumen forwards { " + keyElement(key) + " }");
  if (!element.done) return firstLine(element.text);
  auto counter = counterOf(element.text);
  if (!counter) return "the element has no counter";
  return run(deleteCommand({key}) + "\n" + addCommand(key, *counter, client));
}

std::optional<std::string> NatMap::run(const std::string& commands) {
  Nftables::Result result = nftables_.run(commands);
  if (result.done) return std::nullopt;
  return firstLine(result.text);
}

}  // namespace lumen
