#include "lumen/services/broker/Broker.h"

#include <algorithm>
#include <utility>

#include "lumen/runtime/Codec.h"
#include "lumen/runtime/Fields.h"
#include "lumen/runtime/Log.h"
#include "lumen/runtime/Refusal.h"
#include "lumen/runtime/Time.h"
#include "lumen/services/broker/MonitorEvent.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"
#include "platform/wire/Monitor.h"

namespace lumen {

namespace {

constexpr const char* notPermitted = "not permitted";
constexpr const char* serviceUnavailable = "service unavailable";
constexpr const char* givenUp = "given up";

constexpr uint32_t highestService = 0xFFFF;

bool has(const lm::message& m, uint32_t key) { return m.fields().find(key) != nullptr; }

std::string describe(const Connection& connection) {
  return "connection " + std::to_string(connection.number()) + " (process " +
         std::to_string(connection.peer().pid) + ", user " +
         std::to_string(connection.peer().user) + ")";
}

lm::message notification(uint32_t command, const std::vector<uint32_t>& source,
                         const lm::message& fields) {
  lm::message m = fields;
  m.insert_u32(lm::key::command, command);
  m.insert_u32_array(lm::key::source, source);
  return m;
}

Requester requester(const Connection& from, const lm::message& request) {
  return {from.number(), request.get_u32(lm::key::serial)};
}

}  // namespace

Broker::Broker(Services& services, const lm::Clock& clock, std::optional<gid_t> administrators)
    : services_(services), clock_(clock), administrators_(administrators) {}

Broker::~Broker() = default;

void Broker::addLocal(uint32_t service, uint32_t number, LocalHandler& handler) {
  locals_[{service, number}] = &handler;
  localServices_.insert(service);
}

void Broker::admit(lm::Fd socket, const Peer& peer) {
  Rights rights(peer, services_, administrators_);
  const auto sameUser = [&](const auto& entry) { return entry.second->peer().user == peer.user; };
  const auto others = std::count_if(connections_.begin(), connections_.end(), sameUser);
  const bool tooMany =
      !rights.administrator() && static_cast<size_t>(others) >= maxConnectionsPerUser;
  if (!rights.any() || tooMany) {
    if (lastRefused_ != peer.user) {
      lm::logLine("refused process ", peer.pid, " of user ", peer.user,
                  tooMany ? ", which has too many connections" : ", which has no rights here");
    }
    lastRefused_ = peer.user;
    return;
  }
  const uint64_t number = ++lastConnection_;
  connections_.emplace(number, std::make_unique<Connection>(*this, number, peer, std::move(rights),
                                                            std::move(socket)));
}

void Broker::received(Connection& from, std::string_view datagram) {
  Result<lm::message> message = lm::decode(datagram);
  if (!message) return from.drop("sent no message: " + message.why());
  const bool hasCommand = has(*message, lm::key::command);
  const bool hasSerial = has(*message, lm::key::serial);
  if (has(*message, lm::key::isReply)) {
    if (hasSerial && message->get_bool(lm::key::isReply))
      return handleReply(from, std::move(*message));
  } else if (has(*message, lm::key::destination)) {
    const bool isPath = !message->get_u32_array_ref(lm::key::destination).empty();
    if (isPath && hasSerial && hasCommand) return handleRequest(from, std::move(*message));
  } else if (hasCommand && has(*message, lm::key::source)) {
    return handleNotification(from, std::move(*message));
  }
  from.drop("sent neither request, notification nor reply");
}

void Broker::ended(Connection& connection, const std::string& why) {
  if (!why.empty()) lm::logLine(describe(connection), ": ", why);
  const auto found = connections_.find(connection.number());
  const std::unique_ptr<Connection> gone = std::move(found->second);
  connections_.erase(found);
  monitors_.erase(gone->number());
  for (const uint32_t service : gone->serves) {
    registrations_.erase(service);
    services_.lost(service);
  }
  subscriptions_.removeAll(gone->number());
  if (!gone->serves.empty()) servicesChanged();
  for (const Requester waiting : requests_.takeSentTo(gone->number())) {
    refuse(waiting, serviceUnavailable);
  }
  for (const auto& [path, handler] : locals_) handler->connectionEnded(gone->number());
}

void Broker::handleRequest(Connection& from, lm::message request) {
  const std::vector<uint32_t> destination = request.get_u32_array_ref(lm::key::destination);
  const Path to = Path::of(destination);
  if (!monitors_.empty()) {
    lm::message seen = request;
    writeSource(from, seen);
    showToMonitors(numberOf(from), to.service, seen);
  }
  from.latest = request.get_u32(lm::key::serial);
  from.undo = nullptr;
  if (++from.requests > maxRequests) {
    return refuse(requester(from, request), "too many requests at a time");
  }
  if (to.service == lm::service::broker) return handleOwn(from, request);
  const Rights& rights = from.rights();
  const bool reads = rights.mayRead(to, request.get_u32(lm::key::command));
  if (!rights.mayAsk() && !reads) return refuse(requester(from, request), notPermitted);
  if (isLocal(to.service)) return handleLocal(from, to, request);
  if (!rights.mayCall(to.service)) {
    if (!reads) return refuse(requester(from, request), notPermitted);
    // Who may only read starts no program.
    if (!registrations_.contains(to.service)) {
      return refuse(requester(from, request), serviceUnavailable);
    }
  }
  forward(from, to.service, std::move(request));
}

void Broker::handleNotification(Connection& from, lm::message notification) {
  writeSource(from, notification);
  const Path source = Path::of(notification.get_u32_array_ref(lm::key::source));
  const uint32_t command = notification.get_u32(lm::key::command);
  if (command != lm::broker::cmd::cancel) return publish(command, source, notification);
  if (!monitors_.empty()) showToMonitors(source.service, lm::service::broker, notification);
  cancel(from, notification.get_u32(lm::key::serial));
}

void Broker::handleReply(Connection& from, lm::message reply) {
  const SentRequest answered{from.number(), reply.get_u32(lm::key::serial)};
  const auto to = requests_.takeAnswered(answered.serial, answered.to);
  if (!to) return;
  if (Connection* const asking = find(to->connection); asking && asking->latest == to->serial) {
    asking->undo = [this, answered] { passCancellation(answered); };
  }
  if (has(reply, lm::key::source)) writeSource(from, reply);
  answer(numberOf(from), *to, std::move(reply));
}

// An answer that was sent already came too late: the requester drops it, and this refusal too.
void Broker::cancel(Connection& from, uint32_t serial) {
  const Requester requester{from.number(), serial};
  if (requests_.dropWaiting(requester)) {
    watchDeadlines();
    return refuse(requester, givenUp);
  }
  if (const auto sent = requests_.takeSent(requester)) {
    passCancellation(*sent);
    return refuse(requester, givenUp);
  }
  if (from.latest != serial) return;
  if (const auto undo = std::exchange(from.undo, nullptr)) {
    lm::logLine(describe(from), " has given up request ", serial, ", which is undone");
    undo();
  }
}

void Broker::passCancellation(SentRequest request) {
  Connection* const service = find(request.to);
  if (service == nullptr) return;
  lm::message cancellation;
  cancellation.insert_u32(lm::key::command, lm::broker::cmd::cancel);
  cancellation.insert_u32_array(lm::key::source, {lm::service::broker, 0});
  cancellation.insert_u32(lm::key::serial, request.serial);
  service->send(lm::encode(cancellation));
  if (!monitors_.empty()) showToMonitors(lm::service::broker, numberOf(*service), cancellation);
}

void Broker::handleOwn(Connection& from, const lm::message& request) {
  const Requester to = requester(from, request);
  switch (request.get_u32(lm::key::command)) {
    case lm::broker::cmd::registerServices:
      return registerServices(from, request);
    case lm::broker::cmd::unregisterServices:
      return unregisterServices(from, request);
    case lm::broker::cmd::subscribe:
      return answer(lm::service::broker, to, subscribe(from, request));
    case lm::broker::cmd::unsubscribe:
      return answer(lm::service::broker, to, unsubscribe(from, request));
    case lm::broker::cmd::services:
      return answer(lm::service::broker, to, listServices(from));
    case lm::broker::cmd::monitor:
      return monitor(from, request);
    default:
      return refuse(to, "unknown command");
  }
}

Result<void> Broker::checkRegistration(const Connection& from,
                                       const std::vector<uint32_t>& numbers) const {
  if (numbers.empty()) return Failure{"no service numbers"};
  for (const uint32_t number : numbers) {
    if (!from.rights().mayServe(number)) return Failure{notPermitted};
    if (number == lm::service::broker || number > highestService) {
      return Failure{std::to_string(number) + " is no service number"};
    }
    const auto holder = registrations_.find(number);
    const bool taken = holder != registrations_.end() && holder->second != from.number();
    if (isLocal(number) || taken) {
      return Failure{"service " + std::to_string(number) + " is already registered"};
    }
  }
  return {};
}

void Broker::registerServices(Connection& from, const lm::message& request) {
  const Requester to = requester(from, request);
  const std::vector<uint32_t>& numbers = request.get_u32_array_ref(lm::broker::key::services);
  if (const auto free = checkRegistration(from, numbers); !free) return refuse(to, free.why());
  answer(lm::service::broker, to, {});
  for (const uint32_t number : numbers) {
    if (!registrations_.emplace(number, from.number()).second) continue;
    from.serves.push_back(number);
    services_.registered(number);
    servicesChanged();
    for (WaitingRequest& waiting : requests_.takeWaitingFor(number)) {
      send(waiting.from, from, std::move(waiting.datagram));
    }
  }
  watchDeadlines();
}

void Broker::unregisterServices(Connection& from, const lm::message& request) {
  const Requester to = requester(from, request);
  const std::vector<uint32_t>& numbers = request.get_u32_array_ref(lm::broker::key::services);
  for (const uint32_t number : numbers) {
    const auto holder = registrations_.find(number);
    if (holder == registrations_.end() || holder->second != from.number()) {
      return refuse(to, "service " + std::to_string(number) + " is not registered here");
    }
  }
  for (const uint32_t number : numbers) {
    if (registrations_.erase(number) == 0) continue;
    std::erase(from.serves, number);
    services_.unregistered(number);
    servicesChanged();
  }
  answer(lm::service::broker, to, {});
}

lm::message Broker::subscribe(Connection& from, const lm::message& request) {
  const std::vector<uint32_t>& source = request.get_u32_array_ref(lm::broker::key::topicSource);
  const Path path = Path::of(source);
  const bool mayRead = from.rights().mayRead(path);
  if (!from.rights().mayAsk() && !mayRead) return lm::refusal(notPermitted);
  if (!has(request, lm::broker::key::topicCommand) || source.empty())
    return lm::refusal("no command or path");
  if (isPrivate(path) && !mayRead && !from.rights().mayHearOfItsOwn(path))
    return lm::refusal(notPermitted);
  if (from.subscriptions >= maxSubscriptions) return lm::refusal("too many subscriptions");
  const uint32_t command = request.get_u32(lm::broker::key::topicCommand);
  if (subscriptions_.add(from.number(), command, path)) ++from.subscriptions;
  return {};
}

lm::message Broker::unsubscribe(Connection& from, const lm::message& request) {
  const uint32_t command = request.get_u32(lm::broker::key::topicCommand);
  const Path source = Path::of(request.get_u32_array_ref(lm::broker::key::topicSource));
  if (subscriptions_.remove(from.number(), command, source)) --from.subscriptions;
  return {};
}

lm::message Broker::listServices(const Connection& from) const {
  if (!from.rights().mayRead()) return lm::refusal(notPermitted);
  lm::message reply;
  reply.insert_message_array(lm::key::records, services_.list());
  reply.insert_u64(lm::broker::key::residentMemory, services_.residentMemory());
  return reply;
}

// A monitor is not shown the answer to its own request.
void Broker::monitor(Connection& from, const lm::message& request) {
  const Requester to = requester(from, request);
  if (!from.rights().administrator()) return refuse(to, notPermitted);
  if (!has(request, lm::monitor::key::on)) return refuse(to, "neither on nor off");
  monitors_.erase(from.number());
  answer(lm::service::broker, to, {});
  if (request.get_bool(lm::monitor::key::on)) monitors_.insert(from.number());
}

void Broker::handleLocal(Connection& from, Path to, const lm::message& request) {
  const Requester asking = requester(from, request);
  const auto handler = locals_.find({to.service, to.handler});
  if (handler == locals_.end()) return refuse(asking, "no such handler");
  Caller caller;
  caller.connection = from.number();
  caller.service = serviceOf(from);
  caller.name = services_.nameOf(caller.service);
  caller.administrator = from.rights().administrator();
  caller.reads = from.rights().mayRead();
  caller.user = from.peer().user;
  caller.ports = services_.portsOf(caller.service);
  lm::message reply = handler->second->handle(caller, request.get_u32(lm::key::command), request);
  from.undo = handler->second->takeUndo();
  answer(to.service, asking, std::move(reply));
}

void Broker::forward(Connection& from, uint32_t service, lm::message request) {
  const Requester asking = requester(from, request);
  writeSource(from, request);
  request.fields().erase(lm::key::serial);
  std::string datagram = lm::encode(request);
  services_.asked(service);
  const auto holder = registrations_.find(service);
  if (holder != registrations_.end()) {
    return send(asking, *find(holder->second), std::move(datagram));
  }
  if (!services_.isDefined(service)) return refuse(asking, "no such service");
  if (!services_.need(service, from.rights().administrator())) {
    return refuse(asking, serviceUnavailable);
  }
  startWaiting(asking, service, std::move(datagram));
}

void Broker::send(Requester from, Connection& to, std::string datagram) {
  const uint32_t serial = requests_.addSent(from, to.number());
  lm::message last;
  last.insert_u32(lm::key::serial, serial);
  datagram += lm::encode(last);
  if (datagram.size() <= lm::maxDatagram) return to.send(std::move(datagram));
  (void)requests_.takeAnswered(serial, to.number());
  refuse(from, "the request is too long");
}

void Broker::startWaiting(Requester from, uint32_t service, std::string datagram) {
  if (requests_.waitingBytes() + datagram.size() > maxWaitingBytes) {
    return refuse(from, "too many requests at a time");
  }
  requests_.addWaiting({from, service, clock_.now() + startLimit, std::move(datagram)});
  watchDeadlines();
}

void Broker::watchDeadlines() {
  deadline_.stop();
  const std::optional<lm::Clock::Time> next = requests_.nextDeadline();
  if (!next) return;
  const lm::Clock::Time now = clock_.now();
  deadline_.start<&Broker::refuseLate>(*this, timerDelay(std::max(*next, now) - now));
}

void Broker::refuseLate() {
  for (const WaitingRequest& waiting : requests_.takeLate(clock_.now())) {
    refuse(waiting.from, serviceUnavailable);
  }
  watchDeadlines();
}

void Broker::unavailable(uint32_t number) {
  for (const WaitingRequest& waiting : requests_.takeWaitingFor(number)) {
    refuse(waiting.from, serviceUnavailable);
  }
  watchDeadlines();
  servicesChanged();
}

// Its readers read the list again: what changes is shown by no message that passes here.
void Broker::servicesChanged() {
  const std::vector<uint32_t> source = {lm::service::broker, 0};
  if (subscriptions_.subscribers(lm::cmd::changed, Path::of(source)).empty()) return;
  notify(lm::cmd::changed, source, {});
}

bool Broker::isPrivate(Path path) const {
  const auto handler = locals_.find({path.service, path.handler});
  if (handler != locals_.end()) return handler->second->isPrivate();
  return path.service == lm::service::broker;
}

void Broker::drainConnections(pid_t pid) {
  std::vector<uint64_t> ofProcess;
  for (const auto& [number, connection] : connections_) {
    if (connection->peer().pid == pid) ofProcess.push_back(number);
  }
  for (const uint64_t number : ofProcess) {
    if (Connection* const connection = find(number)) connection->drain();
  }
}

void Broker::notify(uint32_t command, const std::vector<uint32_t>& source,
                    const lm::message& fields) {
  publish(command, Path::of(source), notification(command, source, fields));
}

void Broker::notifyWithOwner(uint64_t owner, uint32_t command, const std::vector<uint32_t>& source,
                             const lm::message& fields) {
  publish(command, Path::of(source), notification(command, source, fields), owner);
}

void Broker::publish(uint32_t command, Path source, const lm::message& notification,
                     std::optional<uint64_t> owner) {
  if (!monitors_.empty()) showToMonitors(source.service, lm::monitor::subscribers, notification);
  const std::set<uint64_t>& subscribers = subscriptions_.subscribers(command, source);
  if (subscribers.empty()) return;
  const std::string datagram = lm::encode(notification);
  if (datagram.size() > lm::maxDatagram) {
    lm::logLine("a notification of ", source.service, "/", source.handler, " is too long");
    return;
  }
  const bool forReaders = isPrivate(source);
  for (const uint64_t subscriber : subscribers) {
    Connection* const connection = find(subscriber);
    if (forReaders && subscriber != owner && !connection->rights().mayRead(source)) continue;
    connection->send(datagram);
  }
}

void Broker::showToMonitors(uint32_t from, uint32_t to, const lm::message& message) const {
  const std::string datagram = encodeMonitorEvent(from, to, message);
  for (const uint64_t monitor : monitors_) find(monitor)->send(datagram);
}

// Every request passes through here exactly once.
void Broker::answer(uint32_t from, Requester to, lm::message reply) {
  Connection* const connection = find(to.connection);
  if (connection == nullptr) return;
  --connection->requests;
  reply.insert_bool(lm::key::isReply, true);
  reply.insert_u32(lm::key::serial, to.serial);
  std::string datagram = lm::encode(reply);
  if (datagram.size() > lm::maxDatagram) {
    reply = lm::refusal("the answer is too long");
    reply.insert_bool(lm::key::isReply, true);
    reply.insert_u32(lm::key::serial, to.serial);
    datagram = lm::encode(reply);
  }
  connection->send(std::move(datagram));
  if (!monitors_.empty()) showToMonitors(from, numberOf(*connection), reply);
}

void Broker::refuse(Requester to, const std::string& text) {
  answer(lm::service::broker, to, lm::refusal(text));
}

Connection* Broker::find(uint64_t connection) const {
  const auto found = connections_.find(connection);
  return found == connections_.end() ? nullptr : found->second.get();
}

// Between two registrations a service is still identified by its user.
uint32_t Broker::serviceOf(const Connection& connection) const {
  if (!connection.serves.empty()) return connection.serves.front();
  const std::vector<uint32_t>& services = connection.rights().services();
  return services.empty() ? 0 : services.front();
}

uint32_t Broker::numberOf(const Connection& connection) const {
  const uint32_t service = serviceOf(connection);
  if (service != 0) return service;
  return lm::monitor::anonymous + static_cast<uint32_t>(connection.number());
}

void Broker::writeSource(const Connection& from, lm::message& message) const {
  const Path written = Path::of(message.get_u32_array_ref(lm::key::source));
  const std::vector<uint32_t>& serves = from.serves;
  const bool isOwn = std::find(serves.begin(), serves.end(), written.service) != serves.end();
  const uint32_t service = isOwn ? written.service : numberOf(from);
  message.insert_u32_array(lm::key::source, {service, written.handler});
}

}  // namespace lumen
