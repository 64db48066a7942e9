#include "lumen/runtime/Runtime.h"

#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <utility>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/SocketTransport.h"
#include "lumen/runtime/StopSignals.h"
#include "lumen/runtime/Time.h"
#include "platform/Keys.h"
#include "platform/Looper.h"
#include "platform/wire/Broker.h"

namespace lm {

using namespace std::chrono_literals;

namespace {

/// How long the platform may take to answer a registration.
constexpr auto registrationLimit = 6s;

message registration() {
  message request;
  request.insert_u32_array(key::destination, {service::broker});
  request.insert_u32_array(broker::key::services, {serviceNumber});
  return request;
}

std::unique_ptr<Transport> connectInTime(const Clock& clock, const std::string& path,
                                         std::chrono::milliseconds limit) {
  const Clock::Time deadline = clock.now() + limit;
  while (true) {
    if (auto transport = SocketTransport::connect(path)) return transport;
    const int error = errno;
    if ((error != ENOENT && error != ECONNREFUSED) || clock.now() >= deadline) {
      fatal("platform: ", path, ": ", strerror(error));
    }
    const timespec retry{0, 50'000'000};
    nanosleep(&retry, nullptr);
  }
}

}  // namespace

Runtime::Runtime(const Clock& clock, std::unique_ptr<Transport> transport, Fd stopSignals)
    : stopSignals_(std::move(stopSignals)),
      loop_(clock),
      connection_(clock, std::move(transport)),
      handlers_(connection_) {
  addSocket<&Runtime::stopSignalled>(stopSignals_.get(), *this, watchRead);
}

Runtime::~Runtime() = default;

std::unique_ptr<Runtime> Runtime::connect(const std::string& path,
                                          std::chrono::milliseconds limit) {
  static const SystemClock clock;
  Fd stopSignals = takeStopSignals();
  if (!stopSignals.valid()) fatal("platform: signalfd: ", strerror(errno));
  return std::make_unique<Runtime>(clock, connectInTime(clock, path, limit),
                                   std::move(stopSignals));
}

void Runtime::addHandler(uint32_t number, Handler& handler) {
  if (serviceNumber == service::broker) fatal("platform: a program without a service number");
  if (!handlers_.add(number, handler)) fatal("platform: handler ", number, " is there already");
  if (!registered_) registerService();
}

void Runtime::run() {
  while (!stopped_) turn(std::nullopt);
}

void Runtime::setupLeave(std::chrono::milliseconds delay) {
  leaveDue_ = false;
  if (delay > 0ms) {
    leaveTimer_.start<&Runtime::leaveDelayPassed>(*this, lumen::timerDelay(delay));
  } else {
    leaveTimer_.stop();
  }
}

void Runtime::turn(std::optional<std::chrono::milliseconds> limit) {
  watchConnection();
  // The end of the connection wakes the loop only once, and an exchange may have seen it.
  loop_.turn(busy() || connection_.ended() ? 0ms : limit);
  if (const std::optional<message> m = connection_.take()) handlers_.dispatch(*m);
  if (leaveDue_) leave();
  if (connection_.ended() && !stopped_) {
    logLine("platform: connection ended");
    stopped_ = true;
  }
}

void Runtime::registerService() {
  const message reply =
      connection_.exchange(registration(), broker::cmd::registerServices, registrationLimit);
  if (isError(reply)) fatal("platform: service ", serviceNumber, ": ", getError(reply));
  registered_ = true;
}

void Runtime::leave() {
  if (registered_) {
    const message reply =
        connection_.exchange(registration(), broker::cmd::unregisterServices, registrationLimit);
    if (isError(reply)) logLine("platform: service ", serviceNumber, ": ", getError(reply));
    registered_ = false;
    for (size_t left = connection_.arrived(); left > 0; --left) {
      // A request that is cancelled meanwhile leaves the queue.
      if (const std::optional<message> m = connection_.take()) handlers_.dispatch(*m);
    }
  }
  if (leaveDue_) {
    stopped_ = true;
  } else if (!connection_.ended()) {
    registerService();
  }
}

/// Watches for room to send only while something is queued.
void Runtime::watchConnection() {
  const unsigned wanted =
      connection_.ended() ? 0 : watchRead | (connection_.wantsToSend() ? watchWrite : 0);
  if (wanted == watched_) return;
  watched_ = wanted;
  if (wanted == 0) {
    removeSocket(connection_.fd());
  } else {
    addSocket<&Runtime::connectionReady>(connection_.fd(), *this, wanted);
  }
}

void Runtime::connectionReady(int) { connection_.progress(); }

void Runtime::stopSignalled(int fd) {
  signalfd_siginfo signal{};
  if (read(fd, &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal)) stopped_ = true;
}

}  // namespace lm
