#pragma once

#include <map>
#include <string>

#include "http/HTTPMessage.h"

/// The files to serve: icons and service descriptions. Only registered URLs name files, so no
/// request can reach outside the directory.
class HTTPStore {
 public:
  /// The largest file in bytes; of a larger one only this much is served.
  static constexpr size_t maxFile = 16384;

  /// `directory` includes its trailing "/".
  explicit HTTPStore(std::string directory) : dir(std::move(directory)) {}

  /// Serves `file` of the directory under `url`, replacing any earlier file.
  void addUrl(const std::string& url, const std::string& file) { urls[url] = file; }

  /// A 200 reply to `request` with `content` as XML or, when that is empty, with the file
  /// registered for the request's URL. A bare 404 when none is registered, or when the file cannot
  /// be read, which is logged.
  [[nodiscard]] HTTPMessage get(const HTTPMessage& request, std::string content) const;

 private:
  std::string dir;
  std::map<std::string, std::string> urls;  // URL path to file name
};
