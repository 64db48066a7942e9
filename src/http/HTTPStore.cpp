#include "http/HTTPStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "base/Log.h"
#include "base/Text.h"
#include "http/MessageLines.h"
#include "http/Server.h"
#include "platform/Fd.h"

namespace {

bool isGif(const std::string& file) {
  // Without a dot, npos + 1 is 0 and selects the whole name.
  return file.substr(file.rfind('.') + 1) == "gif";
}

/// The result of one read of the file. None, after a log line, when it cannot be opened or read.
std::optional<std::string> readFile(const std::string& path) {
  const lm::Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) {
    logLine("open file ", path, ": ", strerror(errno));
    return std::nullopt;
  }
  std::array<char, HTTPStore::maxFile> bytes;
  const ssize_t size = read(fd.get(), bytes.data(), bytes.size());
  if (size < 0) {
    logLine("read file ", path, ": ", strerror(errno));
    return std::nullopt;
  }
  return std::string(bytes.data(), static_cast<size_t>(size));
}

}  // namespace

HTTPMessage HTTPStore::get(const HTTPMessage& request, std::string content) const {
  std::string type = "text/xml";
  if (content.empty()) {
    const auto file = urls.find(parseRequestLine(request.startLine).url);
    if (file == urls.end()) return HTTPMessage(HTTP_NOT_FOUND);
    if (isGif(file->second)) type = "image/gif";
    auto bytes = readFile(dir + file->second);
    if (!bytes) return HTTPMessage(HTTP_NOT_FOUND);
    content = std::move(*bytes);
  }

  HTTPMessage reply(HTTP_OK);
  if (request.hasField("ACCEPT-LANGUAGE")) reply.addField("CONTENT-LANGUAGE", "en-us");
  reply.addField("CONTENT-TYPE", type);
  reply.addField("CONTENT-LENGTH", inttostr(static_cast<int>(content.size())));
  reply.addDate(0);
  reply.addField("SERVER", SERVER_STRING);
  reply.addField("CONNECTION", "close");
  reply.body = std::move(content);
  return reply;
}
