// The client of scripts/bench: makes requests one after the other, and reports when each began and
// when it was answered. While it waits for an answer it looks for it all the time: the server would
// have to wake it otherwise, which costs a fast server nothing and a slower one several
// microseconds.
//
//   client [--until-answered] FIRST COUNT ADDRESS PORT [LISTEN_PORT]
//                                              requests over TCP, a connection each
//   client --datagrams [FIRST COUNT] ADDRESS PORT
//                                              requests as datagrams
//
// The requests come by turns from COUNT addresses, of which FIRST is the first: the kernel refuses
// a single host that makes thousands of connections a second, since it looks only some times a
// second which have ended; and NAT-PMP answers a host only so often.
//
// Standard input has for each request a line "LENGTH COUNT" and so many bytes. Over TCP the reply
// ends with the connection, and COUNT subscribers at LISTEN_PORT must be notified afterwards; COUNT
// datagrams must answer a datagram. Each begins with "HTTP/1.1 200 " or "NOTIFY ", of which a
// datagram may be cut, or is a success of NAT-PMP.
//
// Standard output has for each request a line "BEGIN END REPLY_BYTES NOTIFY_BYTES": nanoseconds of
// CLOCK_MONOTONIC, the size of the reply, or of all datagrams together, and that of the last
// notification. With --until-answered a refused connection is tried again; the line "refused"
// reports the first one.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Fd.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view ok = "HTTP/1.1 200 ";
constexpr std::string_view notification = "NOTIFY ";
constexpr std::string_view answer = "HTTP/1.1 200 OK\r\n\r\n";
constexpr auto answerLimit = std::chrono::seconds(10);
constexpr auto betweenAttempts = std::chrono::microseconds(100);
constexpr int attempts = 100'000;

struct Request {
  std::string bytes;
  unsigned count = 0;
};

struct Outcome {
  Clock::time_point begin;
  Clock::time_point end;
  size_t replyBytes = 0;
  size_t notifyBytes = 0;
};

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(EXIT_FAILURE);
}

/// RFC 6886: version 0, an opcode above 127, result 0.
bool isNatPmpSuccess(std::string_view text) {
  return text.size() >= 8 && text[0] == 0 && (text[1] & 0x80) != 0 && text[2] == 0 && text[3] == 0;
}

void checkBeginning(std::string_view text) {
  if (text.starts_with(ok) || text.starts_with(notification) || isNatPmpSuccess(text)) return;
  if (!text.empty() && ok.starts_with(text)) return;
  std::fprintf(stderr, "not expected: %.*s\n", static_cast<int>(std::min<size_t>(text.size(), 200)),
               text.data());
  std::exit(EXIT_FAILURE);
}

std::vector<Request> readRequests() {
  std::vector<Request> requests;
  size_t length = 0;
  unsigned count = 0;
  while (std::scanf("%zu %u", &length, &count) == 2 && std::getchar() == '\n') {
    std::string bytes(length, '\0');
    if (std::fread(bytes.data(), 1, length, stdin) != length) fail("read");
    requests.push_back({std::move(bytes), count});
  }
  return requests;
}

lm::Fd makeSocket(int type) {
  lm::Fd fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
  if (!fd.valid()) fail("socket");
  return fd;
}

class Client {
 public:
  Client(const char* address, const char* port) {
    server_.sin_family = AF_INET;
    server_.sin_port = htons(static_cast<uint16_t>(std::strtoul(port, nullptr, 10)));
    if (inet_aton(address, &server_.sin_addr) == 0) fail(address);
  }

  /// Requests come by turns from so many addresses, of which `first` is the first.
  void askFrom(const char* first, const char* count) {
    in_addr address = {};
    if (inet_aton(first, &address) == 0) fail(first);
    firstSource_ = ntohl(address.s_addr);
    sources_ = std::max(1U, static_cast<unsigned>(std::strtoul(count, nullptr, 10)));
  }

  /// Subscribers listen at this port of every address.
  void listenAt(const char* port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::strtoul(port, nullptr, 10)));
    listener_ = makeSocket(SOCK_STREAM | SOCK_NONBLOCK);
    const int on = 1;
    constexpr int queue = 256;
    if (setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener_.get(), queue) != 0) {
      fail("listen");
    }
  }

  void tryAgainWhenRefused() { triesAgain_ = true; }

  [[nodiscard]] Outcome exchange(const Request& request) {
    Outcome outcome;
    outcome.begin = Clock::now();
    {
      const lm::Fd fd = connected();
      if (send(fd.get(), request.bytes.data(), request.bytes.size(), MSG_NOSIGNAL) < 0) {
        fail("send");
      }
      outcome.replyBytes = readToEnd(fd.get());
    }
    // Answered at once, and closed only after the end, so that no subscriber waits for another.
    std::vector<lm::Fd> deliveries(request.count);
    for (lm::Fd& delivery : deliveries) {
      delivery = accepted();
      outcome.notifyBytes = receiveText(delivery.get());
      if (send(delivery.get(), answer.data(), answer.size(), MSG_NOSIGNAL) < 0) fail("answer");
    }
    outcome.end = Clock::now();
    for (const lm::Fd& delivery : deliveries) {
      while (receive(delivery.get()) > 0) {
      }
    }
    return outcome;
  }

  [[nodiscard]] Outcome ask(const Request& request) {
    const lm::Fd fd = makeSocket(SOCK_DGRAM);
    bindToNextSource(fd.get());
    Outcome outcome;
    outcome.begin = Clock::now();
    if (sendto(fd.get(), request.bytes.data(), request.bytes.size(), 0,
               reinterpret_cast<const sockaddr*>(&server_), sizeof server_) < 0) {
      fail("sendto");
    }
    for (unsigned i = 0; i < request.count; ++i) outcome.replyBytes += receiveText(fd.get());
    outcome.end = Clock::now();
    return outcome;
  }

 private:
  void bindToNextSource(int fd) {
    sockaddr_in source = {};
    source.sin_family = AF_INET;
    source.sin_addr.s_addr = htonl(firstSource_ + requests_++ % sources_);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&source), sizeof source) != 0) fail("bind");
  }

  [[nodiscard]] lm::Fd connected() {
    for (int i = 0; i < attempts; ++i) {
      lm::Fd fd = makeSocket(SOCK_STREAM);
      bindToNextSource(fd.get());
      if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&server_), sizeof server_) == 0) {
        return fd;
      }
      if (errno != ECONNREFUSED || !triesAgain_) fail("connect");
      if (i == 0) {
        std::puts("refused");
        std::fflush(stdout);
      }
      std::this_thread::sleep_for(betweenAttempts);
    }
    fail("connect");
  }

  [[nodiscard]] lm::Fd accepted() {
    const auto limit = Clock::now() + answerLimit;
    do {
      lm::Fd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (fd.valid()) return fd;
      if (errno != EAGAIN) fail("accept");
      sched_yield();
    } while (Clock::now() < limit);
    fail("accept");
  }

  /// The size of what comes with one read; 0 at the end.
  [[nodiscard]] size_t receive(int fd) {
    const auto limit = Clock::now() + answerLimit;
    do {
      const ssize_t size = recv(fd, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
      if (size >= 0) return static_cast<size_t>(size);
      if (errno != EAGAIN) fail("recv");
      sched_yield();
    } while (Clock::now() < limit);
    fail("recv");
  }

  [[nodiscard]] size_t receiveText(int fd) {
    const size_t size = receive(fd);
    checkBeginning({buffer_.data(), size});
    return size;
  }

  [[nodiscard]] size_t readToEnd(int fd) {
    size_t bytes = receiveText(fd);
    while (const size_t size = receive(fd)) bytes += size;
    return bytes;
  }

  sockaddr_in server_ = {};
  uint32_t firstSource_ = INADDR_ANY;
  unsigned sources_ = 1;
  unsigned requests_ = 0;  ///< number of requests made
  lm::Fd listener_;
  bool triesAgain_ = false;
  std::array<char, 65536> buffer_ = {};
};

long long nanoseconds(Clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<const char*> arguments(argv + 1, argv + argc);
  const auto takeOption = [&](std::string_view name) {
    const bool given = !arguments.empty() && arguments.front() == name;
    if (given) arguments.erase(arguments.begin());
    return given;
  };
  const bool datagrams = takeOption("--datagrams");
  const bool untilAnswered = !datagrams && takeOption("--until-answered");
  const size_t least = datagrams && arguments.size() == 2 ? 2 : 4;
  if (arguments.size() < least || arguments.size() > (datagrams ? 4 : 5)) {
    std::fputs(
        "Usage: client [--until-answered] FIRST COUNT ADDRESS PORT [LISTEN_PORT]\n"
        "       client --datagrams [FIRST COUNT] ADDRESS PORT\n",
        stderr);
    return 2;
  }
  Client client(arguments[least - 2], arguments[least - 1]);
  if (least == 4) client.askFrom(arguments[0], arguments[1]);
  if (arguments.size() > least) client.listenAt(arguments[least]);
  if (untilAnswered) client.tryAgainWhenRefused();

  const std::vector<Request> requests = readRequests();
  std::vector<Outcome> outcomes;
  outcomes.reserve(requests.size());
  for (const Request& request : requests) {
    outcomes.push_back(datagrams ? client.ask(request) : client.exchange(request));
  }
  for (const Outcome& outcome : outcomes) {
    std::printf("%lld %lld %zu %zu\n", nanoseconds(outcome.begin), nanoseconds(outcome.end),
                outcome.replyBytes, outcome.notifyBytes);
  }
}
