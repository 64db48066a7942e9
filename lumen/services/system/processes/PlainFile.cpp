#include "lumen/services/system/processes/PlainFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/Fd.h"

namespace lumen {

Result<std::optional<std::string>> readPlainFile(const std::string& path, size_t limit) {
  const lm::Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info = {};
  if (!file.valid() || fstat(file.get(), &info) != 0) {
    if (errno == ENOENT) return std::optional<std::string>();
    return Failure{strerror(errno)};
  }
  if (!S_ISREG(info.st_mode)) return Failure{"is no plain file"};
  std::string text(limit, '\0');
  const ssize_t length = read(file.get(), text.data(), limit);
  if (length < 0) return Failure{strerror(errno)};
  text.resize(static_cast<size_t>(length));
  return std::optional(std::move(text));
}

}  // namespace lumen
