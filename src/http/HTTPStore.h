#pragma once

#include <map>
#include <string>

#include "http/HTTPMessage.h"

/// The files that are served: icons and service descriptions. A URL names a file only if it was
/// registered, so no request reaches outside of the directory.
class HTTPStore {
 public:
  /// The longest file that is served whole, in bytes; a longer one is cut.
  static constexpr size_t maxFile = 16384;

  /// `directory` with its trailing "/".
  explicit HTTPStore(std::string directory) : dir(std::move(directory)) {}

  /// Serves `file` of the directory under `url`, in place of an earlier one.
  void addUrl(const std::string& url, const std::string& file) { urls[url] = file; }

  /// A 200 reply to `request` that carries `content` as XML or, when that is empty, the file that
  /// is registered for the request's URL. A bare 404 when there is none or it cannot be read, which
  /// is logged.
  [[nodiscard]] HTTPMessage get(const HTTPMessage& request, const std::string& content) const;

 private:
  std::string dir;
  std::map<std::string, std::string> urls;  // URL path to file name
};
