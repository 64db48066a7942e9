#include "lumen/web/HostNames.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "platform/Fd.h"

namespace lumen::web {

namespace {

constexpr std::chrono::seconds period(10);
constexpr size_t longestFile = 256UL * 1024;
constexpr size_t longestName = 64;
constexpr size_t mostNames = 4096;

std::string_view takeLine(std::string_view& text) {
  const size_t end = text.find('\n');
  const std::string_view line = text.substr(0, end);
  text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  return line;
}

std::vector<std::string_view> words(std::string_view line) {
  constexpr const char* blanks = " \t\r";
  std::vector<std::string_view> found;
  size_t begin = line.find_first_not_of(blanks);
  while (begin != std::string_view::npos) {
    const size_t end = std::min(line.find_first_of(blanks, begin), line.size());
    found.push_back(line.substr(begin, end - begin));
    begin = line.find_first_not_of(blanks, end);
  }
  return found;
}

void add(std::string_view addressText, std::string_view name, NamesByAddress& names) {
  const auto address = Ipv4Address::parse(addressText);
  if (!address || name.empty() || name.size() > longestName || names.size() >= mostNames) return;
  names.emplace(*address, name);
}

/// What can be read of the file.
std::string content(const char* path) {
  const lm::Fd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  std::string text;
  if (!file.valid()) return text;
  text.resize(longestFile);
  size_t length = 0;
  while (length < text.size()) {
    const ssize_t got = read(file.get(), text.data() + length, text.size() - length);
    if (got <= 0) break;
    length += static_cast<size_t>(got);
  }
  text.resize(length);
  return text;
}

}  // namespace

void readHosts(std::string_view text, NamesByAddress& names) {
  while (!text.empty()) {
    const std::string_view line = takeLine(text);
    const auto entry = words(line.substr(0, line.find('#')));
    if (entry.size() >= 2) add(entry[0], entry[1], names);
  }
}

void readLeases(std::string_view text, NamesByAddress& names) {
  while (!text.empty()) {
    const auto entry = words(takeLine(text));
    if (entry.size() >= 4 && entry[3] != "*") add(entry[2], entry[3], names);
  }
}

void HostNames::refresh() {
  const lm::Clock::Time now = clock_.now();
  if (now < next_) return;
  next_ = now + period;
  names_.clear();
  readHosts(content(hostsFile), names_);
  readLeases(content(leaseFile), names_);
}

std::string HostNames::of(Ipv4Address address) const {
  const auto known = names_.find(address);
  return known == names_.end() ? address.text() : known->second;
}

}  // namespace lumen::web
