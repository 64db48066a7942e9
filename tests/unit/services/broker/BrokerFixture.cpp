#include "services/broker/BrokerFixture.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "lumen/runtime/Codec.h"
#include "platform/Keys.h"
#include "platform/wire/Broker.h"

namespace lumen::test {

namespace {

using namespace std::chrono_literals;

std::vector<ServiceDefinition> threeServices() {
  ServiceDefinition names;
  names.name = "resolver";
  names.number = 14;
  names.user = 201;
  names.answersOnly = true;
  ServiceDefinition upnp;
  upnp.name = "upnp";
  upnp.number = 40;
  upnp.user = 200;
  upnp.ports = PortGrant{.most = 100};
  ServiceDefinition web;
  web.name = "web";
  web.number = 42;
  web.user = 202;
  web.reads = true;
  return {names, upnp, web};
}

}  // namespace

lm::message fields(const std::string& text) {
  lm::message m;
  m.insert_string(7, text);
  return m;
}

lm::message requestTo(const std::vector<uint32_t>& path, uint32_t command) {
  lm::message m;
  m.insert_u32_array(lm::key::destination, path);
  m.insert_u32(lm::key::command, command);
  m.insert_u32(lm::key::serial, 1);
  return m;
}

lm::message topic(uint32_t command, std::vector<uint32_t> path) {
  lm::message m;
  m.insert_u32(lm::broker::key::topicCommand, command);
  m.insert_u32_array(lm::broker::key::topicSource, std::move(path));
  return m;
}

lm::message services(const std::vector<uint32_t>& numbers) {
  lm::message m;
  m.insert_u32_array(lm::broker::key::services, numbers);
  return m;
}

void Program::sendBytes(const std::string& datagram) {
  const ssize_t sent =
      ::send(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  EXPECT_EQ(sent, static_cast<ssize_t>(datagram.size())) << strerror(errno);
}

void Program::send(const lm::message& m) { sendBytes(lm::encode(m)); }

uint32_t Program::ask(const std::vector<uint32_t>& path, uint32_t command, lm::message fields) {
  fields.insert_u32_array(lm::key::destination, path);
  fields.insert_u32(lm::key::command, command);
  fields.insert_u32(lm::key::serial, ++serial_);
  send(fields);
  return serial_;
}

void Program::answer(const lm::message& request, lm::message fields) {
  fields.insert_bool(lm::key::isReply, true);
  fields.insert_u32(lm::key::serial, request.get_u32(lm::key::serial));
  send(fields);
}

void Program::cancel(uint32_t serial) {
  lm::message cancellation;
  cancellation.insert_u32(lm::key::serial, serial);
  notify(lm::broker::cmd::cancel, lm::none, cancellation);
}

void Program::notify(uint32_t command, uint32_t handler, lm::message fields) {
  fields.insert_u32(lm::key::command, command);
  fields.insert_u32_array(lm::key::source, {0, handler});
  send(fields);
}

std::optional<lm::message> Program::receive() {
  std::string buffer(lm::maxDatagram, '\0');
  const ssize_t length = recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (length <= 0) return std::nullopt;
  buffer.resize(static_cast<size_t>(length));
  Result<lm::message> m = lm::decode(buffer);
  if (m) return std::move(*m);
  ADD_FAILURE() << m.why();
  return std::nullopt;
}

lm::message Program::next() {
  std::optional<lm::message> m = receive();
  EXPECT_TRUE(m) << "nothing has arrived";
  return m ? std::move(*m) : lm::message();
}

std::string Program::error() {
  const std::optional<lm::message> reply = receive();
  return reply ? lm::getError(*reply) : std::string();
}

bool Program::isDisconnected() {
  char byte = 0;
  const ssize_t length = recv(socket_.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK);
  return length == 0 || (length < 0 && errno == ECONNRESET);
}

BrokerTest::BrokerTest()
    : supervisor(threeServices(), processes, clock, "/run"),
      broker(supervisor, clock, administrators) {
  supervisor.setObserver(broker);
  broker.addLocal(20, 5, rules);
  broker.addLocal(66, 0, history);
}

Program BrokerTest::connect(uid_t user, std::vector<gid_t> groups, pid_t pid) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
  Peer peer;
  peer.pid = pid;
  peer.user = user;
  peer.groups = std::move(groups);
  broker.admit(lm::Fd(ends[0]), peer);
  return Program(lm::Fd(ends[1]));
}

Program BrokerTest::connectGateway() {
  Program service = connect(gatewayUser);
  registerAs(service, gateway);
  return service;
}

Program BrokerTest::connectResolver() {
  Program service = connect(resolverUser);
  registerAs(service, resolver);
  return service;
}

Program BrokerTest::startedGateway() {
  Program service = connect(gatewayUser, {100}, processes.last());
  registerAs(service, gateway);
  return service;
}

std::string BrokerTest::errorOf(Program& program, const std::vector<uint32_t>& path,
                                uint32_t command, lm::message fields) {
  program.ask(path, command, std::move(fields));
  settle();
  return lm::getError(program.next());
}

void BrokerTest::registerAs(Program& program, uint32_t service) {
  EXPECT_EQ(errorOf(program, {0}, lm::broker::cmd::registerServices, services({service})), "");
}

void BrokerTest::unregister(Program& program, uint32_t service) {
  EXPECT_EQ(errorOf(program, {0}, lm::broker::cmd::unregisterServices, services({service})), "");
}

void BrokerTest::subscribe(Program& program, uint32_t command, std::vector<uint32_t> path) {
  EXPECT_EQ(errorOf(program, {0}, lm::broker::cmd::subscribe, topic(command, std::move(path))), "");
}

uint32_t BrokerTest::asksGateway(Program& client, lm::message fields) {
  const uint32_t serial = client.ask({gateway, 0}, someCommand, std::move(fields));
  settle();
  return serial;
}

void BrokerTest::answers(Program& service, const lm::message& request, lm::message fields) {
  service.answer(request, std::move(fields));
  settle();
}

void BrokerTest::givesUp(Program& client, uint32_t serial) {
  client.cancel(serial);
  settle();
}

void BrokerTest::settle(int turns) {
  for (int i = 0; i < turns; ++i) loop.turn(0ms);
}

void BrokerTest::pass(std::chrono::milliseconds time) {
  clock.advanceInSteps(time, [this] { settle(3); });
}

}  // namespace lumen::test
