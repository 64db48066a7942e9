#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lumen/values/Ipv4.h"
#include "lumen/web/HttpServer.h"
#include "platform/Fd.h"
#include "platform/Timer.h"
#include "platform/Watch.h"

namespace lumen::web {

/// The listening sockets: one for each address of an internal interface, bound to both.
class Listeners {
 public:
  struct Place {
    std::string interface;
    uint32_t index = 0;  ///< of the kernel: another link of the same name is another place
    Endpoint endpoint;

    auto operator<=>(const Place&) const = default;
  };

  /// `server` must outlive this.
  explicit Listeners(HttpServer& server);
  Listeners(const Listeners&) = delete;
  Listeners& operator=(const Listeners&) = delete;
  ~Listeners();

  /// Listens there and nowhere else. What fails is tried again every few seconds.
  void listenAt(std::vector<Place> places);

  /// "192.168.88.1:80 192.168.99.1:80".
  [[nodiscard]] std::string served() const;
  /// Why a place is not served, one of them; empty: all are.
  [[nodiscard]] const std::string& problem() const { return problem_; }

 private:
  class Socket;

  void update();
  [[nodiscard]] std::string open(const Place& place);

  HttpServer& server_;
  std::vector<Place> wanted_;
  std::map<Place, std::unique_ptr<Socket>> sockets_;
  std::string problem_;
  lm::Timer retry_;
};

}  // namespace lumen::web
