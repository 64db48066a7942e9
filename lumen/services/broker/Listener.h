#pragma once

#include <string>

#include "lumen/services/broker/Broker.h"
#include "lumen/values/Result.h"
#include "platform/Fd.h"
#include "platform/Watch.h"

namespace lumen {

/// The platform's socket, open to every user: the broker decides about each connection.
class Listener {
 public:
  /// `broker` must outlive this.
  explicit Listener(Broker& broker) : broker_(broker) {}
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  /// Removes the socket.
  ~Listener();

  /// Starts to listen at `path`; removes a socket that an earlier process has left there.
  [[nodiscard]] Result<void> listen(const std::string& path);

 private:
  bool ready(int fd);

  Broker& broker_;
  std::string path_;
  lm::Fd socket_;
  lm::Watch watch_;
};

}  // namespace lumen
