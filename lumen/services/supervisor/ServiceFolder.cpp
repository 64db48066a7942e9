#include "lumen/services/supervisor/ServiceFolder.h"

#include <algorithm>
#include <filesystem>
#include <optional>

#include "lumen/runtime/Log.h"
#include "lumen/services/system/processes/PlainFile.h"

namespace lumen {

namespace {

namespace fs = std::filesystem;

std::vector<std::string> serviceFiles(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code error;
  fs::directory_iterator entry(folder, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    if (entry->path().extension() == ".ini") files.push_back(entry->path().string());
  }
  if (error) lm::logLine(folder, ": ", error.message());
  std::sort(files.begin(), files.end());
  return files;
}

std::string clash(const ServiceDefinition& found, const std::vector<ServiceDefinition>& others,
                  const std::set<uint32_t>& taken) {
  if (taken.contains(found.number)) {
    return "number " + std::to_string(found.number) + " is lumend's own";
  }
  for (const ServiceDefinition& other : others) {
    if (other.number == found.number) {
      return "number " + std::to_string(found.number) + " is that of " + other.name;
    }
    if (other.name == found.name) return "there is another service " + found.name;
  }
  return {};
}

}  // namespace

std::vector<ServiceDefinition> readServiceFolder(const std::string& folder,
                                                 const UserDatabase& users,
                                                 const std::set<uint32_t>& taken) {
  std::vector<ServiceDefinition> services;
  for (const std::string& path : serviceFiles(folder)) {
    // One byte more than is allowed is read, so that a file that is too long shows.
    const PlainFile file = readPlainFile(path, maxServiceFile + 1);
    std::string error = file.error;
    std::optional<ServiceDefinition> found;
    if (error.empty()) found = parseServiceFile(file.text, users, error);
    if (found) error = clash(*found, services, taken);
    if (!error.empty()) {
      lm::logLine(path, ": ", error);
      continue;
    }
    services.push_back(std::move(*found));
  }
  const auto byNumber = [](const ServiceDefinition& a, const ServiceDefinition& b) {
    return a.number < b.number;
  };
  std::sort(services.begin(), services.end(), byNumber);
  return services;
}

}  // namespace lumen
