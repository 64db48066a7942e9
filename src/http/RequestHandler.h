#pragma once

#include <memory>
#include <string>

#include "http/HTTPMessage.h"
#include "http/ServedInterface.h"

/// What the HTTP server asks of the gateway behind it.
class RequestHandler {
 public:
  virtual ~RequestHandler() = default;

  /// The interface whose listening socket `listenFd` is; null when there is none, which ends the
  /// process.
  [[nodiscard]] virtual std::shared_ptr<ServedInterface> findListener(int listenFd) = 0;

  /// The whole reply to a request that came in on `device`. `method` and `url` are the parts of its
  /// start line, as they are.
  [[nodiscard]] virtual HTTPMessage handleHttpRequest(const ServedInterface& device,
                                                      const HTTPMessage& request,
                                                      const std::string& method,
                                                      const std::string& url) = 0;
};
