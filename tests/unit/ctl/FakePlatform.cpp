#include "ctl/FakePlatform.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "lumen/ctl/CommandLine.h"
#include "lumen/runtime/Fields.h"
#include "lumen/values/Ipv4.h"
#include "platform/Keys.h"
#include "platform/wire/Addresses.h"
#include "platform/wire/Broker.h"
#include "platform/wire/History.h"
#include "platform/wire/Interfaces.h"
#include "platform/wire/Monitor.h"
#include "platform/wire/NatRules.h"
#include "platform/wire/Pcp.h"
#include "platform/wire/Pinholes.h"
#include "platform/wire/Web.h"

namespace lumenctl {

namespace {

namespace ifkey = lm::interfaces::key;
namespace natkey = lm::nat::key;

constexpr uint32_t gatewayNumber = 40;

std::string hex(uint32_t value, const char* format) {
  char text[16];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

std::string describe(const lm::message& fields) {
  std::string text;
  for (const lm::Field& field : fields.fields()) {
    text += " " + hex(field.key, "%08x") + "=";
    if (const auto* flag = std::get_if<bool>(&field.value)) text += *flag ? "true" : "false";
    if (const auto* number = std::get_if<uint32_t>(&field.value)) text += std::to_string(*number);
    if (const auto* string = std::get_if<std::string>(&field.value)) text += '"' + *string + '"';
  }
  return text;
}

std::string describe(const std::vector<uint32_t>& path) {
  std::string text;
  for (const uint32_t number : path) text += (text.empty() ? "[" : ",") + std::to_string(number);
  return text + "]";
}

bool changesSomething(const std::string& request) {
  for (const uint32_t command :
       {lm::cmd::addObject, lm::cmd::setObject, lm::cmd::removeObject, lm::cmd::set}) {
    if (request.find("] " + hex(command, "%x")) != std::string::npos) return true;
  }
  return false;
}

std::vector<lm::message>::iterator withId(std::vector<lm::message>& table, uint32_t id) {
  return std::find_if(table.begin(), table.end(), [id](const lm::message& record) {
    return record.get_u32(lm::key::objectId) == id;
  });
}

}  // namespace

class FakePlatform::Connection : public Client {
 public:
  explicit Connection(FakePlatform& platform) : platform_(platform) {}
  lumen::Result<lm::message> exchange(const Path& destination, uint32_t command,
                                      lm::message request,
                                      std::chrono::milliseconds limit) override {
    platform_.limits_[destination] = limit;
    return platform_.answer(destination, command, request);
  }
  lumen::Result<std::optional<lm::message>> notification() override {
    return platform_.nextShown();
  }

 private:
  FakePlatform& platform_;
};

FakePlatform::FakePlatform() {
  gatewayIs(lm::broker::state::running, 4711);
  settings_.insert_bool(1, true);
  settings_.insert_bool(2, true);
  settings_.insert_bool(3, true);
  policy_.insert_string(natkey::externalPorts, "1024-65535");
  policy_.insert_string(natkey::internalClients, "internal");
  policy_.insert_string(natkey::internalPorts, "1-65535");
  policy_.insert_string(natkey::routerPorts, "none");
  policy_.insert_u32(natkey::maxRules, 4096);
  policy_.insert_u32(natkey::maxRulesPerClient, 128);
  policy_.insert_bool(natkey::remotesPossible, true);
}

FakePlatform::Result FakePlatform::lumenctl(const std::vector<std::string>& arguments) {
  std::ostringstream out;
  std::ostringstream err;
  if (outputIsFull_) out.setstate(std::ios::badbit);
  const auto connect = [this](const std::string& root) -> lumen::Result<std::unique_ptr<Client>> {
    root_ = root;
    if (!reachable_) return lumen::Failure{"lumend does not answer"};
    return std::unique_ptr<Client>(std::make_unique<Connection>(*this));
  };
  const int status = run(arguments, connect, machine_, out, err);
  return {status, out.str(), err.str()};
}

uint32_t FakePlatform::hasLink(const std::string& name, uint32_t role) {
  lm::message record;
  record.insert_u32(lm::key::objectId, nextId_++);
  record.insert_u32(ifkey::hardwareType, 1);
  record.insert_u32(ifkey::index, nextId_);
  record.insert_string(ifkey::name, name);
  record.insert_bool(lm::key::disabled, false);
  record.insert_bool(ifkey::running, true);
  if (role != 0) record.insert_u32(ifkey::role, role);
  links_.push_back(record);
  return record.get_u32(lm::key::objectId);
}

lm::message& FakePlatform::link(const std::string& name) {
  return *std::find_if(links_.begin(), links_.end(), [&](const lm::message& record) {
    return record.get_string(ifkey::name) == name;
  });
}

void FakePlatform::hasAddress(const std::string& linkName, const std::string& address,
                              bool disabled) {
  lm::message record;
  record.insert_u32(lm::key::objectId, nextId_++);
  record.insert_u32(lm::addresses::key::interface, link(linkName).get_u32(lm::key::objectId));
  record.insert_be32(lm::addresses::key::address, lumen::Ipv4Address::parse(address)->bytes());
  record.insert_bool(lm::key::disabled, disabled);
  addresses_.push_back(record);
}

void FakePlatform::hasPort(uint32_t port, uint32_t protocol, const std::string& client,
                           uint32_t clientPort) {
  lm::message record;
  record.insert_u32(lm::key::objectId, nextId_++);
  record.insert_bool(lm::key::disabled, false);
  record.insert_be32(natkey::addressFirst, lumen::Ipv4Address(45, 45, 45, 1).bytes());
  record.insert_u32(natkey::portFirst, port);
  record.insert_u32(natkey::protocol, protocol);
  record.insert_be32(natkey::clientFirst, lumen::Ipv4Address::parse(client)->bytes());
  record.insert_u32(natkey::clientPortFirst, clientPort);
  record.insert_string(natkey::owner, "palinode-igd");
  record.insert_u64(natkey::seconds, 185);
  record.insert_u64(natkey::connections, 2);
  record.insert_u64(natkey::uses, 17);
  rules_.push_back(record);
}

void FakePlatform::hasPinhole(const std::string& host, uint32_t port, uint32_t protocol) {
  lm::message record;
  lm::pinholes::write(
      record, lm::pinholes::Record{
                  .pinhole = {.address = host, .protocol = protocol, .port = port, .lease = 5025},
                  .id = nextId_++,
                  .owner = "pcp",
                  .seconds = 185});
  pinholes_.push_back(record);
}

void FakePlatform::gatewayUses(const std::string& linkName, uint32_t role, bool disabled) {
  lm::message record;
  record.insert_u32(lm::key::objectId, nextId_++);
  record.insert_bool(lm::key::disabled, disabled);
  record.insert_u32(1, link(linkName).get_u32(lm::key::objectId));
  record.insert_u32(2, role);
  objects_.push_back(record);
}

void FakePlatform::pcpIs(bool enabled, const std::string& served, const std::string& problem) {
  pcp_.insert_bool(lm::pcp::key::enabled, enabled);
  pcp_.insert_string(lm::pcp::key::agents, "");
  pcp_.insert_string(lm::pcp::key::served, served);
  pcp_.insert_string(lm::pcp::key::problem, problem);
  pcp_.insert_u32(lm::pcp::key::mappings, 2);
  lm::message record;
  record.insert_u32(lm::broker::listed::number, lm::service::pcp);
  record.insert_string(lm::broker::listed::name, "pcp");
  record.insert_string(lm::broker::listed::state,
                       enabled ? lm::broker::state::running : lm::broker::state::stopped);
  services_.push_back(record);
}

void FakePlatform::webPageIs(bool enabled, const std::string& served, const std::string& problem) {
  webPage_.insert_bool(lm::web::key::enabled, enabled);
  webPage_.insert_u32(lm::web::key::port, 80);
  webPage_.insert_string(lm::web::key::names, "");
  webPage_.insert_string(lm::web::key::served, served);
  webPage_.insert_string(lm::web::key::problem, problem);
  lm::message record;
  record.insert_u32(lm::broker::listed::number, lm::service::web);
  record.insert_string(lm::broker::listed::name, "web");
  record.insert_string(lm::broker::listed::state,
                       enabled ? lm::broker::state::running : lm::broker::state::stopped);
  services_.push_back(record);
}

void FakePlatform::gatewayIs(const std::string& state, uint32_t pid, uint64_t nextStart) {
  lm::message record;
  record.insert_u32(lm::broker::listed::number, gatewayNumber);
  record.insert_string(lm::broker::listed::name, "palinode-igd");
  record.insert_string(lm::broker::listed::state, state);
  record.insert_u32(lm::broker::listed::pid, pid);
  record.insert_u32(lm::broker::listed::restarts, 3);
  record.insert_u64(lm::broker::listed::nextStart, nextStart);
  record.insert_string(lm::broker::listed::program, "palinode-igd");
  record.insert_u64(lm::broker::listed::residentMemory, pid == 0 ? 0 : 3'145'728);
  services_ = {record};
}

uint32_t FakePlatform::wasChanged(const std::string& text, uint32_t undoCommand, lm::message undo) {
  namespace key = lm::history::key;
  lm::message record;
  record.insert_u32(lm::key::objectId, nextId_++);
  record.insert_string(key::text, text);
  record.insert_u32_array(key::path, {gatewayNumber, 0});
  record.insert_u64(key::time, 1709251198);
  undo.insert_u32(lm::key::command, undoCommand);
  record.insert_message(key::undo, std::move(undo));
  history_.push_back(record);
  return record.get_u32(lm::key::objectId);
}

void FakePlatform::refusedOwnPort(const lm::nat::LogRecord& event) {
  lm::message record;
  lm::nat::write(record, event);
  refusalsOfOwnPorts_.push_back(record);
}

void FakePlatform::hadPortEvent(const lm::nat::LogRecord& event, bool later) {
  lm::message record;
  lm::nat::write(record, event);
  if (!later) return portEvents_.push_back(record);
  lm::message news;
  news.insert_u32(lm::key::command, lm::cmd::changed);
  news.insert_u32_array(lm::key::source, {20, 6});
  news.insert_message_array(lm::key::records, {record});
  shown_.push_back(std::move(news));
}

void FakePlatform::passes(uint32_t from, uint32_t to, lm::message m, bool cut) {
  lm::message shown;
  shown.insert_u32(lm::key::command, lm::broker::cmd::monitor);
  shown.insert_u32(lm::monitor::key::from, from);
  shown.insert_u32(lm::monitor::key::to, to);
  shown.insert_message(lm::monitor::key::message, std::move(m));
  if (cut) shown.insert_bool(lm::monitor::key::cut, true);
  shown_.push_back(std::move(shown));
}

void FakePlatform::refuses(const Path& destination, uint32_t command, const std::string& text) {
  refusals_[{destination, command}] = text;
}

void FakePlatform::leavesUnanswered(const Path& destination, uint32_t command,
                                    const std::string& why) {
  silences_[{destination, command}] = why;
}

void FakePlatform::sendsShortPages(bool endless) {
  pageSize_ = 1;
  endless_ = endless;
}

std::vector<std::string> FakePlatform::changes() const {
  std::vector<std::string> result;
  std::copy_if(requests_.begin(), requests_.end(), std::back_inserter(result), changesSomething);
  return result;
}

bool FakePlatform::wasAsked(const std::string& destination) const {
  return std::any_of(requests_.begin(), requests_.end(),
                     [&](const std::string& request) { return request.starts_with(destination); });
}

lumen::Result<std::optional<lm::message>> FakePlatform::nextShown() {
  if (shown_.empty() && ends_) return lumen::Failure{"the platform has ended"};
  if (shown_.empty()) return std::optional<lm::message>();
  std::optional<lm::message> next = std::move(shown_.front());
  shown_.pop_front();
  return next;
}

lumen::Result<lm::message> FakePlatform::answer(const Path& destination, uint32_t command,
                                                const lm::message& request) {
  requests_.push_back(describe(destination) + " " + hex(command, "%x") + describe(request));
  const auto silence = silences_.find({destination, command});
  if (silence != silences_.end()) return lumen::Failure{silence->second};
  const auto refusal = refusals_.find({destination, command});
  if (refusal != refusals_.end()) return lm::errorMsg(lm::errorRefused, refusal->second);

  lm::message reply;
  if (destination == Path{0} && command == lm::broker::cmd::services) {
    reply.insert_message_array(lm::key::records, services_);
    return reply;
  }
  if (destination == Path{0} && command == lm::broker::cmd::monitor) return reply;
  if (destination == Path{0} && command == lm::broker::cmd::subscribe) return reply;
  if (destination == Path{65} && command == lm::cmd::get) {
    reply.insert_string(1, "0c5e9a51");
    return reply;
  }
  if (destination == Path{20, 0}) {
    if (command == lm::cmd::list) return page(links_, request);
    if (command == lm::cmd::addObject) return keep(request);
    if (command == lm::cmd::readObject) {
      reply = *withId(links_, request.get_u32(lm::key::objectId));
      reply.insert_u64(ifkey::bytesReceived, 1234567);
      reply.insert_u64(ifkey::bytesSent, 999);
      return reply;
    }
    return changeTable(links_, command, request);
  }
  if (destination == Path{20, 1} && command == lm::cmd::readAll) return page(addresses_, request);
  if (destination == Path{20, 5}) {
    if (command == lm::cmd::readAll) return page(rules_, request);
    if (command == lm::cmd::set) return reply;
    if (command == lm::cmd::get) return policy_;
    return changeTable(rules_, command, request);
  }
  if (destination == Path{20, 6} && command == lm::cmd::get) {
    reply.insert_message_array(lm::key::records, refusalsOfOwnPorts_);
    return reply;
  }
  if (destination == Path{20, 6} && command == lm::cmd::readAll) return page(portEvents_, request);
  if (destination == lm::pinholes::path()) {
    if (command == lm::cmd::readAll) return page(pinholes_, request);
    if (command != lm::cmd::get) return changeTable(pinholes_, command, request);
    reply.insert_bool(lm::pinholes::key::remotesPossible, true);
    return reply;
  }
  if (destination == Path{66}) {
    if (command == lm::cmd::readAll) return page(history_, request);
    return changeTable(history_, command, request);
  }
  if (destination == lm::web::path() && webPage_.get_u32(lm::web::key::port) != 0) {
    if (command == lm::cmd::get) return webPage_;
    const bool enabled = webPage_.get_bool(lm::web::key::enabled);
    webPage_.insert_bool(lm::web::key::enabled, request.get_bool(lm::web::key::enabled, enabled));
    return reply;
  }
  if (destination == lm::pcp::path() && pcp_.get_u32(lm::pcp::key::mappings) != 0) {
    if (command == lm::cmd::get) return pcp_;
    const bool enabled = pcp_.get_bool(lm::pcp::key::enabled);
    pcp_.insert_bool(lm::pcp::key::enabled, request.get_bool(lm::pcp::key::enabled, enabled));
    pcp_.insert_string(lm::pcp::key::agents, request.get_string(lm::pcp::key::agents));
    return reply;
  }
  if (destination == Path{gatewayNumber, 0}) {
    if (command == lm::cmd::get) return settings_;
    if (command == lm::cmd::readAll) return page(objects_, request);
    if (command != lm::cmd::set) return changeTable(objects_, command, request);
    settings_ = request;
    return reply;
  }
  return lm::errorMsg(lm::errorRefused, "no such service");
}

lm::message FakePlatform::page(const std::vector<lm::message>& table,
                               const lm::message& request) const {
  const uint32_t after = request.get_u32(lm::key::cursor);
  std::vector<lm::message> records;
  size_t left = 0;
  for (const lm::message& record : table) {
    if (record.get_u32(lm::key::objectId) <= after) continue;
    if (records.size() == pageSize_) ++left;
    if (records.size() < pageSize_) records.push_back(record);
  }
  lm::message reply;
  if (left > 0) {
    reply.insert_u32(lm::key::cursor, endless_ ? 1 : records.back().get_u32(lm::key::objectId));
  }
  reply.insert_message_array(lm::key::records, std::move(records));
  return reply;
}

lm::message FakePlatform::changeTable(std::vector<lm::message>& table, uint32_t command,
                                      const lm::message& request) {
  if (command == lm::cmd::addObject) {
    lm::message record = request;
    record.insert_u32(lm::key::objectId, nextId_++);
    table.push_back(record);
    return {};
  }
  const auto it = withId(table, request.get_u32(lm::key::objectId));
  if (it == table.end()) return lm::errorMsg(lm::errorRefused, "no such object");
  if (command == lm::cmd::removeObject) {
    table.erase(it);
  } else {
    for (const lm::Field& field : request.fields()) it->fields().set(field.key, field.value);
  }
  return {};
}

lm::message FakePlatform::keep(const lm::message& request) {
  const std::string name = request.get_string(ifkey::name);
  const bool present = std::any_of(links_.begin(), links_.end(), [&](const lm::message& record) {
    return record.get_string(ifkey::name) == name;
  });
  if (!present) {
    hasLink(name);
    link(name).insert_u32(ifkey::index, 0);
    link(name).insert_bool(ifkey::running, false);
  }
  link(name).insert_u32(ifkey::role, request.get_u32(ifkey::role));
  lm::message reply;
  reply.insert_u32(lm::key::objectId, link(name).get_u32(lm::key::objectId));
  return reply;
}

}  // namespace lumenctl
