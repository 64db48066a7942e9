#include "lumen/services/supervisor/ServiceFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "lumen/runtime/Log.h"
#include "platform/Fd.h"

namespace lumen {

namespace {

namespace fs = std::filesystem;

// One byte more than is allowed is read, so that a file that is too long shows. Whatever is no
// plain file, such as a pipe that nobody writes to, is not waited for.
std::optional<std::string> readFile(const std::string& path, std::string& error) {
  const lm::Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info = {};
  if (!file.valid() || fstat(file.get(), &info) != 0) {
    error = strerror(errno);
    return std::nullopt;
  }
  if (!S_ISREG(info.st_mode)) {
    error = "is no plain file";
    return std::nullopt;
  }
  std::string text(maxServiceFile + 1, '\0');
  const ssize_t length = read(file.get(), text.data(), text.size());
  if (length < 0) {
    error = strerror(errno);
    return std::nullopt;
  }
  text.resize(static_cast<size_t>(length));
  return text;
}

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
    std::string error;
    const std::optional<std::string> text = readFile(path, error);
    std::optional<ServiceDefinition> found;
    if (text) found = parseServiceFile(*text, users, error);
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
