#include "lumen/services/nat/FlowMarks.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>

#include "base/Folder.h"
#include "lumen/runtime/Log.h"
#include "platform/Fd.h"

namespace lumen {

namespace {

constexpr mode_t forOwner = 0600;

std::optional<Endpoint> endpointOf(std::string_view name) {
  const size_t colon = name.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const auto address = Ipv4Address::parse(name.substr(0, colon));
  if (!address) return std::nullopt;
  Endpoint external{.address = *address};
  std::from_chars(name.data() + colon + 1, name.data() + name.size(), external.port);
  if (external.text() != name) return std::nullopt;
  return external;
}

void logFailure(const std::string& file) {
  lm::logLine("flow mark ", file, ": ", std::strerror(errno));
}

}  // namespace

std::set<Endpoint> FlowMarks::all() const {
  std::set<Endpoint> result;
  Folder folder(folder_);
  if (!folder.valid()) {
    logFailure(folder_);
    return result;
  }
  while (const dirent* const entry = folder.next()) {
    if (const auto external = endpointOf(entry->d_name)) result.insert(*external);
  }
  return result;
}

void FlowMarks::set(const Endpoint& external) const {
  const std::string file = fileOf(external);
  const lm::Fd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, forOwner));
  if (!fd.valid()) logFailure(file);
}

void FlowMarks::clear(const Endpoint& external) const {
  const std::string file = fileOf(external);
  if (unlink(file.c_str()) != 0 && errno != ENOENT) logFailure(file);
}

std::string FlowMarks::fileOf(const Endpoint& external) const {
  return folder_ + "/" + external.text();
}

}  // namespace lumen
