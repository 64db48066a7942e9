#include "lumen/web/Listeners.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/Time.h"

namespace lumen::web {

namespace {

constexpr std::chrono::seconds retryPeriod(3);
// Those that wait while others are accepted: one for which there is no room waits for a second.
constexpr int backlog = 1024;

}  // namespace

class Listeners::Socket {
 public:
  Socket(HttpServer& server, lm::Fd fd) : server_(server), fd_(std::move(fd)) {
    watch_.start<&Socket::ready>(fd_.get(), *this, lm::watchAccept);
  }

 private:
  bool ready(int fd) {
    sockaddr_in peer = {};
    socklen_t length = sizeof peer;
    lm::Fd client(
        accept4(fd, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!client.valid()) return false;
    server_.adopt(std::move(client), Ipv4Address::fromBytes(peer.sin_addr.s_addr));
    return true;
  }

  HttpServer& server_;
  lm::Fd fd_;
  lm::Watch watch_;
};

Listeners::Listeners(HttpServer& server) : server_(server) {}

Listeners::~Listeners() = default;

void Listeners::listenAt(std::vector<Place> places) {
  wanted_ = std::move(places);
  update();
}

void Listeners::update() {
  retry_.stop();
  std::erase_if(sockets_, [this](const auto& entry) {
    return std::find(wanted_.begin(), wanted_.end(), entry.first) == wanted_.end();
  });
  std::string problem;
  for (const Place& place : wanted_) {
    if (sockets_.contains(place)) continue;
    const std::string why = open(place);
    if (problem.empty()) problem = why;
  }
  if (std::exchange(problem_, problem) != problem && !problem.empty()) logLine("web: ", problem);
  if (!problem_.empty()) retry_.start<&Listeners::update>(*this, timerDelay(retryPeriod));
}

// Returns why it failed.
std::string Listeners::open(const Place& place) {
  lm::Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  std::array<char, IFNAMSIZ> name = {};
  place.interface.copy(name.data(), name.size() - 1);
  const int on = 1;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(place.endpoint.port);
  address.sin_addr.s_addr = place.endpoint.address.bytes();
  if (!fd.valid() ||
      setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, name.data(), name.size()) != 0 ||
      setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(fd.get(), backlog) != 0) {
    const int error = errno;
    const std::string where = place.endpoint.text() + " on " + place.interface;
    if (error == EADDRINUSE) return where + ": the port is taken by another program";
    return where + ": " + strerror(error);
  }
  sockets_.emplace(place, std::make_unique<Socket>(server_, std::move(fd)));
  return {};
}

std::string Listeners::served() const {
  std::string all;
  for (const auto& [place, socket] : sockets_) {
    all += (all.empty() ? "" : " ") + place.endpoint.text();
  }
  return all;
}

}  // namespace lumen::web
