#include "lumen/services/supervisor/ServiceFolder.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/Folder.h"
#include "lumen/runtime/Log.h"
#include "lumen/services/system/processes/PlainFile.h"

namespace lumen {

namespace {

constexpr std::string_view extension = ".ini";

std::vector<std::string> serviceFiles(const std::string& path) {
  std::vector<std::string> files;
  Folder folder(path);
  if (!folder.valid()) lm::logLine(path, ": ", strerror(errno));
  while (const dirent* const entry = folder.next()) {
    const std::string name = entry->d_name;
    if (name.size() > extension.size() && name.ends_with(extension)) {
      files.push_back(path + "/" + name);
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

/// Whether `found` can be a service beside `others`.
Result<void> checkUnique(const ServiceDefinition& found,
                         const std::vector<ServiceDefinition>& others,
                         const std::set<uint32_t>& taken) {
  if (taken.contains(found.number)) {
    return Failure{"number " + std::to_string(found.number) + " is lumend's own"};
  }
  for (const ServiceDefinition& other : others) {
    if (other.number == found.number) {
      return Failure{"number " + std::to_string(found.number) + " is that of " + other.name};
    }
    if (other.name == found.name) return Failure{"there is another service " + found.name};
  }
  return {};
}

Result<ServiceDefinition> readServiceFile(const std::string& path, const UserDatabase& users) {
  // One byte more than is allowed is read, so that a file that is too long shows.
  const auto text = readPlainFile(path, maxServiceFile + 1);
  if (!text) return text.failure();
  if (!*text) return Failure{strerror(ENOENT)};
  return parseServiceFile(**text, users);
}

}  // namespace

std::vector<ServiceDefinition> readServiceFolder(const std::string& folder,
                                                 const UserDatabase& users,
                                                 const std::set<uint32_t>& taken) {
  std::vector<ServiceDefinition> services;
  for (const std::string& path : serviceFiles(folder)) {
    Result<ServiceDefinition> found = readServiceFile(path, users);
    const Result<void> unique = found ? checkUnique(*found, services, taken) : found.failure();
    if (unique) {
      services.push_back(std::move(*found));
    } else {
      lm::logLine(path, ": ", unique.why());
    }
  }
  const auto byNumber = [](const ServiceDefinition& a, const ServiceDefinition& b) {
    return a.number < b.number;
  };
  std::sort(services.begin(), services.end(), byNumber);
  return services;
}

}  // namespace lumen
