#include "lumen/runtime/RecordDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/Folder.h"
#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Log.h"
#include "platform/Fd.h"

namespace lm {
namespace {

constexpr std::string_view temporarySuffix = ".new";
constexpr std::string_view brokenSuffix = ".broken";

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

/// Reads at most one byte more than a record can have.
lumen::Result<std::string> readAll(int fd) {
  // One for all, of which only what records fill is ever touched: most are short.
  static std::array<char, maxDatagram + 1> buffer;
  size_t length = 0;
  while (length < buffer.size()) {
    const ssize_t got = ::read(fd, buffer.data() + length, buffer.size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return lumen::Failure{strerror(errno)};
    if (got == 0) break;
    length += static_cast<size_t>(got);
  }
  return std::string(buffer.data(), length);
}

/// An empty file holds an empty message.
lumen::Result<message> readRecord(int fd) {
  const lumen::Result<std::string> bytes = readAll(fd);
  if (!bytes) return bytes.failure();
  if (bytes->empty()) return message();
  return decode(*bytes);
}

/// Makes renames and removals in the directory survive a power failure.
bool syncDirectory(const std::string& path) {
  const Fd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return directory.valid() && fsync(directory.get()) == 0;
}

std::optional<uint32_t> numberOf(std::string_view name) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  if (error != std::errc() || end != name.data() + name.size()) return std::nullopt;
  if (name != std::to_string(number)) return std::nullopt;
  return number;
}

void logFailure(const std::string& file) { logLine("store: ", file, ": ", strerror(errno)); }

/// Removes the file when it has no new name.
bool renameOrRemove(const std::string& file, const std::string& name) {
  const int result = name.empty() ? unlink(file.c_str()) : rename(file.c_str(), name.c_str());
  if (result != 0) logFailure(name.empty() ? file : name);
  return result == 0;
}

void setAside(const std::string& file, const std::string& reason) {
  const std::string aside = file + std::string(brokenSuffix);
  logLine("store: ", file, " is broken (", reason, "), kept as ", aside);
  (void)renameOrRemove(file, aside);
}

}  // namespace

RecordDirectory::Pending::Pending(std::string temporary, std::string committed,
                                  std::string otherwise, std::string directory)
    : temporary_(std::move(temporary)),
      committed_(std::move(committed)),
      otherwise_(std::move(otherwise)),
      directory_(std::move(directory)) {}

RecordDirectory::Pending::~Pending() {
  if (!temporary_.empty()) (void)renameOrRemove(temporary_, otherwise_);
}

bool RecordDirectory::Pending::commit() {
  if (temporary_.empty()) return true;
  otherwise_.clear();
  if (!renameOrRemove(temporary_, committed_)) return false;
  temporary_.clear();
  // The record is in its place whether or not the directory could be synced.
  if (!syncDirectory(directory_)) logFailure(directory_);
  return true;
}

RecordDirectory::RecordDirectory(std::string path) : path_(std::move(path)) {}

std::vector<uint32_t> RecordDirectory::numbers() const {
  std::vector<uint32_t> result;
  Folder folder(path_);
  if (!folder.valid()) {
    logFailure(path_);
    return result;
  }
  while (const dirent* const entry = folder.next()) {
    std::string_view name = entry->d_name;
    if (const auto number = numberOf(name)) {
      result.push_back(*number);
    } else if (name.ends_with(temporarySuffix)) {
      name.remove_suffix(temporarySuffix.size());
      if (numberOf(name)) unlink((path_ + "/" + entry->d_name).c_str());
    }
  }
  std::sort(result.begin(), result.end());
  return result;
}

std::optional<message> RecordDirectory::read(uint32_t number) const {
  const std::string file = fileOf(number);
  // O_NONBLOCK: a pipe in its place must not block.
  const Fd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd.valid() && errno == ENOENT) return std::nullopt;
  lumen::Result<message> record =
      fd.valid() ? readRecord(fd.get()) : lumen::Failure{strerror(errno)};
  if (record) return std::move(*record);
  setAside(file, record.why());
  return std::nullopt;
}

std::unique_ptr<RecordDirectory::Pending> RecordDirectory::prepare(uint32_t number,
                                                                   const message& record) const {
  const std::string file = fileOf(number);
  const std::string temporary = file + std::string(temporarySuffix);
  const std::string bytes = encode(record);
  if (bytes.size() > maxDatagram) {
    logLine("store: ", file, ": record too long");
    return nullptr;
  }
  const Fd fd(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!fd.valid()) {
    logFailure(temporary);
    return nullptr;
  }
  auto pending = std::make_unique<Pending>(temporary, file, std::string(), path_);
  if (!writeAll(fd.get(), bytes) || fsync(fd.get()) != 0) {
    logFailure(temporary);
    return nullptr;
  }
  return pending;
}

std::unique_ptr<RecordDirectory::Pending> RecordDirectory::prepareRemoval(uint32_t number) const {
  const std::string file = fileOf(number);
  std::string temporary = file + std::string(temporarySuffix);
  if (rename(file.c_str(), temporary.c_str()) != 0) {
    if (errno != ENOENT) {
      logFailure(file);
      return nullptr;
    }
    temporary.clear();
  }
  return std::make_unique<Pending>(std::move(temporary), std::string(), file, path_);
}

bool RecordDirectory::remove(uint32_t number) const {
  const std::string file = fileOf(number);
  if (unlink(file.c_str()) != 0) {
    if (errno == ENOENT) return true;
    logFailure(file);
    return false;
  }
  if (!syncDirectory(path_)) logFailure(path_);
  return true;
}

std::string RecordDirectory::fileOf(uint32_t number) const {
  return path_ + "/" + std::to_string(number);
}

}  // namespace lm
