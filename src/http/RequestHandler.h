#pragma once

#include <memory>
#include <string>

#include "http/HTTPMessage.h"
#include "http/ServedInterface.h"

/// What the HTTP server needs from the gateway.
class RequestHandler {
 public:
  virtual ~RequestHandler() = default;

  /// The interface that owns the listening socket `listenFd`. Null when there is none, which ends
  /// the process.
  [[nodiscard]] virtual std::shared_ptr<ServedInterface> findListener(int listenFd) = 0;

  /// The complete reply to a request received on `device`. `method` and `url` are the unchanged
  /// parts of its start line.
  [[nodiscard]] virtual HTTPMessage handleHttpRequest(const ServedInterface& device,
                                                      const HTTPMessage& request,
                                                      const std::string& method,
                                                      const std::string& url) = 0;
};
