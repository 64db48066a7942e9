#include "lumen/services/system/processes/PlainFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/Fd.h"

namespace lumen {

PlainFile readPlainFile(const std::string& path, size_t limit) {
  PlainFile result;
  const lm::Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info = {};
  if (!file.valid() || fstat(file.get(), &info) != 0) {
    result.missing = errno == ENOENT;
    result.error = strerror(errno);
    return result;
  }
  if (!S_ISREG(info.st_mode)) {
    result.error = "is no plain file";
    return result;
  }
  result.text.resize(limit);
  const ssize_t length = read(file.get(), result.text.data(), limit);
  if (length < 0) result.error = strerror(errno);
  result.text.resize(length < 0 ? 0 : static_cast<size_t>(length));
  return result;
}

}  // namespace lumen
