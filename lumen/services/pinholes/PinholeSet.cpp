#include "lumen/services/pinholes/PinholeSet.h"

#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace lumen {

namespace {

constexpr const char* tableName = "table ip6 lumen";
constexpr ElementSet pinholes{.family = TableFamily::ip6, .table = "lumen", .name = "pinholes"};

SetElement element(const PinholeKey& key) {
  SetElement element;
  const Ipv6Address::Bytes& host = key.host.bytes();
  for (size_t at = 0; at < host.size(); at += sizeof(ElementPart)) {
    ElementPart& part = element.key.emplace_back();
    std::memcpy(part.data(), &host[at], sizeof part);
  }
  element.key.push_back({std::byte(key.protocol)});
  element.key.push_back({std::byte(key.port >> 8), std::byte(key.port & 0xff)});
  return element;
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
  return {};
}

Result<void> PinholeSet::add(const PinholeKey& key) {
  const SetElement one = element(key);
  const ElementChange change = {
      .action = ElementAction::add, .set = pinholes, .elements = {&one, 1}};
  return nftables_.changeElements({&change, 1});
}

Result<void> PinholeSet::remove(const std::vector<PinholeKey>& keys) {
  if (keys.empty()) return {};
  std::vector<SetElement> elements;
  elements.reserve(keys.size());
  for (const PinholeKey& key : keys) elements.push_back(element(key));
  const ElementChange change = {
      .action = ElementAction::remove, .set = pinholes, .elements = elements};
  return nftables_.changeElements({&change, 1});
}

}  // namespace lumen
