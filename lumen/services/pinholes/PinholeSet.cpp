#include "lumen/services/pinholes/PinholeSet.h"

#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <utility>

namespace lumen {

namespace {

constexpr const char* tableName = "table ip6 lumen";
constexpr ElementSet pinholes{.family = TableFamily::ip6, .table = "lumen", .name = "pinholes"};
constexpr ElementSet filtered{.family = TableFamily::ip6, .table = "lumen", .name = "filtered"};

void append(ElementParts& parts, const Ipv6Address& address) {
  const Ipv6Address::Bytes& bytes = address.bytes();
  for (size_t at = 0; at < bytes.size(); at += sizeof(ElementPart)) {
    ElementPart& part = parts.emplace_back();
    std::memcpy(part.data(), &bytes[at], sizeof part);
  }
}

const ElementSet& setOf(const Pinhole& pinhole) {
  return pinhole.remotes.empty() ? pinholes : filtered;
}

std::vector<SetElement> elementsOf(const Pinhole& pinhole) {
  const PinholeKey& key = pinhole.key;
  SetElement plain;
  append(plain.key, key.host);
  plain.key.push_back({std::byte(key.protocol)});
  plain.key.push_back({std::byte(key.port >> 8), std::byte(key.port & 0xff)});
  if (pinhole.remotes.empty()) return {plain};
  std::vector<SetElement> elements;
  for (const Ipv6Network& remote : pinhole.remotes) {
    SetElement& element = elements.emplace_back(plain);
    element.keyEnd = plain.key;
    append(element.key, remote.first());
    append(element.keyEnd, remote.last());
  }
  return elements;
}

constexpr std::string_view setsLabel = " @pinholes ct label set ";
constexpr uint32_t labels = 128;

/// The number of the label that the table sets.
std::optional<uint32_t> labelIn(std::string_view table) {
  const std::string_view text = table.substr(table.find(setsLabel) + setsLabel.size());
  uint32_t label = labels;
  const char* const end = text.data() + text.find('\n');
  const auto read = std::from_chars(text.data(), end, label);
  if (read.ptr != end || label >= labels) return std::nullopt;
  return label;
}

// nft explains an error in several lines, the first of which says what it is.
std::string firstLine(const std::string& text) {
  std::string line = text.substr(0, text.find('\n'));
  return line.empty() ? "no reason given" : line;
}

}  // namespace

bool Pinhole::admits(const Ipv6Address& remote) const {
  return remotes.empty() || std::ranges::any_of(remotes, [&](const Ipv6Network& network) {
           return network.holds(remote);
         });
}

std::string keyText(const PinholeKey& key) {
  return std::string(key.protocol == IPPROTO_TCP ? "tcp" : "udp") + " port " +
         std::to_string(key.port) + " of " + key.host.text();
}

Result<void> PinholeSet::open(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) return Failure{path + ": " + std::strerror(errno)};
  const Result<std::string> tables = nftables_.run("list tables ip6");
  if (!tables) return Failure{"cannot read the nftables tables: " + firstLine(tables.why())};
  if ((*tables + "\n").find(std::string(tableName) + "\n") != std::string::npos) {
    return Failure{"nftables table ip6 lumen exists already: another program made it"};
  }
  const Result<std::string> loaded = nftables_.runFile(path);
  if (!loaded) {
    return Failure{"cannot load the pinhole ruleset " + path + ": " + firstLine(loaded.why())};
  }
  const Result<std::string> table = nftables_.run("list table ip6 lumen");
  for (const char* part : {"\tflags owner\n", "\tset pinholes {\n",
                           "\t\ttype ipv6_addr . inet_proto . inet_service\n", setsLabel.data()}) {
    if (table && table->find(part) != std::string::npos) continue;
    // A table without an owner would outlive this process.
    static_cast<void>(nftables_.run("delete table ip6 lumen"));
    std::string_view words(part);
    words = words.substr(words.find_first_not_of("\t "));
    words = words.substr(0, words.find_last_not_of("\n ") + 1);
    return Failure{"the pinhole ruleset " + path + " does not make a table ip6 lumen with \"" +
                   std::string(words) + "\""};
  }
  label_ = labelIn(*table);
  hasRemotes_ = true;
  for (const char* part :
       {"\tset filtered {\n", "\t\ttype ipv6_addr . inet_proto . inet_service . ipv6_addr\n",
        "\t\tflags interval\n", " @filtered ct label set "}) {
    if (table->find(part) == std::string::npos) hasRemotes_ = false;
  }
  return {};
}

Result<void> PinholeSet::add(const Pinhole& pinhole) {
  const std::vector<SetElement> elements = elementsOf(pinhole);
  const ElementChange adding = {ElementAction::add, setOf(pinhole), elements};
  return nftables_.changeElements({&adding, 1});
}

Result<void> PinholeSet::remove(const std::vector<Pinhole>& all) {
  std::vector<SetElement> plain;
  std::vector<SetElement> withRemotes;
  for (const Pinhole& pinhole : all) {
    for (SetElement& element : elementsOf(pinhole)) {
      (pinhole.remotes.empty() ? plain : withRemotes).push_back(std::move(element));
    }
  }
  std::vector<ElementChange> removals;
  if (!plain.empty()) removals.push_back({ElementAction::remove, pinholes, plain});
  if (!withRemotes.empty()) removals.push_back({ElementAction::remove, filtered, withRemotes});
  if (removals.empty()) return {};
  return nftables_.changeElements(removals);
}

Result<void> PinholeSet::change(const Pinhole& before, const Pinhole& after) {
  const std::vector<SetElement> old = elementsOf(before);
  const std::vector<SetElement> changed = elementsOf(after);
  const ElementChange changes[] = {{ElementAction::remove, setOf(before), old},
                                   {ElementAction::add, setOf(after), changed}};
  return nftables_.changeElements(changes);
}

}  // namespace lumen
