#include "lumen/services/resolver/Lookup.h"

#include <ares.h>
#include <netinet/in.h>
#include <sys/time.h>

#include <cstring>
#include <utility>

#include "lumen/runtime/Time.h"

namespace lumen {

namespace {

// For the first query to a name server; the second, after all others were asked, gets twice as
// long.
constexpr std::chrono::duration<int, std::milli> firstTry{300};
constexpr int tries = 2;

Failure describe(int status) {
  switch (status) {
    case ARES_ENOTFOUND:
      return {"no such host"};
    case ARES_ENODATA:
      return {"host has no IPv4 address"};
    case ARES_ETIMEOUT:
      return {Lookup::noAnswer};
    // An older c-ares reports the next three as this one.
    case ARES_ECONNREFUSED:
    case ARES_ESERVFAIL:
    case ARES_ENOTIMP:
    case ARES_EREFUSED:
      return {"no name server can tell"};
    default:
      return {std::string("lookup failed: ") + ares_strerror(status)};
  }
}

/// The first address that a host can have.
Result<Ipv4Address> usableAddress(const ares_addrinfo& found) {
  for (const ares_addrinfo_node* node = found.nodes; node != nullptr; node = node->ai_next) {
    sockaddr_in address = {};
    if (node->ai_family != AF_INET || node->ai_addrlen < sizeof address) continue;
    memcpy(&address, node->ai_addr, sizeof address);
    const Ipv4Address usable = Ipv4Address::fromBytes(address.sin_addr.s_addr);
    if (usable.number() != INADDR_ANY && usable.number() != INADDR_BROADCAST) return usable;
  }
  return Failure{"host has no usable address"};
}

}  // namespace

void Lookup::Destroy::operator()(ares_channeldata* channel) const { ares_destroy(channel); }

Lookup::Lookup(Owner& owner, std::string name, std::string configuration)
    : owner_(owner), name_(std::move(name)), configuration_(std::move(configuration)) {}

Lookup::~Lookup() = default;

void Lookup::start() {
  ares_options options = {};
  options.timeout = firstTry.count();
  options.tries = tries;
  options.sock_state_cb = &Lookup::socketChanged;
  options.sock_state_cb_data = this;
  options.resolvconf_path = configuration_.data();
  ares_channel channel = nullptr;
  const int status = ares_init_options(
      &channel, &options,
      ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_SOCK_STATE_CB | ARES_OPT_RESOLVCONF);
  if (status == ARES_SUCCESS) {
    channel_.reset(channel);
    limitTimer_.start<&Lookup::late>(*this, timerDelay(limit));
    // Sorting would open a socket to each address.
    ares_addrinfo_hints hints = {};
    hints.ai_family = AF_INET;
    hints.ai_flags = ARES_AI_NOSORT;
    ares_getaddrinfo(channel, name_.c_str(), nullptr, &hints, &Lookup::answered, this);
  } else {
    result_ = describe(status);
  }
  proceed();
}

void Lookup::socketChanged(void* lookup, int fd, int readable, int writable) {
  auto& watches = static_cast<Lookup*>(lookup)->watches_;
  const unsigned flags = (readable != 0 ? lm::watchRead : 0) | (writable != 0 ? lm::watchWrite : 0);
  if (flags == 0) {
    watches.erase(fd);
  } else {
    watches[fd].start<&Lookup::socketReady>(fd, *static_cast<Lookup*>(lookup), flags);
  }
}

/// Called from inside of c-ares, where a channel must not be destroyed: proceed ends the lookup.
void Lookup::answered(void* lookup, int status, int /*timeouts*/, ares_addrinfo* found) {
  const std::unique_ptr<ares_addrinfo, void (*)(ares_addrinfo*)> owned(found, ares_freeaddrinfo);
  std::optional<Result<Ipv4Address>>& result = static_cast<Lookup*>(lookup)->result_;
  if (status == ARES_EDESTRUCTION) return;
  if (status == ARES_SUCCESS) {
    result = usableAddress(*found);
  } else {
    result = describe(status);
  }
}

void Lookup::socketReady(int fd, unsigned flags) {
  ares_process_fd(channel_.get(), (flags & lm::watchRead) != 0 ? fd : ARES_SOCKET_BAD,
                  (flags & lm::watchWrite) != 0 ? fd : ARES_SOCKET_BAD);
  proceed();
}

void Lookup::askAgain() {
  ares_process_fd(channel_.get(), ARES_SOCKET_BAD, ARES_SOCKET_BAD);
  proceed();
}

void Lookup::late() {
  result_ = Failure{noAnswer};
  proceed();
}

/// Callers must return at once: the owner may destroy *this.
void Lookup::proceed() {
  if (result_) {
    owner_.lookedUp(name_, *result_);
    return;
  }
  timeval storage = {};
  const timeval* const wait = ares_timeout(channel_.get(), nullptr, &storage);
  if (wait == nullptr) return;
  const auto due = std::chrono::seconds(wait->tv_sec) + std::chrono::microseconds(wait->tv_usec);
  const Centiseconds delay = std::chrono::floor<Centiseconds>(due) + Centiseconds(1);
  askAgainTimer_.start<&Lookup::askAgain>(*this, delay.count());
}

}  // namespace lumen
