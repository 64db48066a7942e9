// The NAT rule table under any sequence of requests, ends of connections and refusals of the
// kernel: afterwards the kernel's map holds exactly what the table lists as open.
//
// An input is a row of steps: a byte what happens, a byte who asks, and what that takes. Requests
// are right ones made of few bytes, with fields of an encoded message put over them.

#include <arpa/inet.h>

#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fuzz/ForwardsMap.h"
#include "fuzz/Fuzz.h"
#include "lumen/runtime/Codec.h"
#include "lumen/runtime/EventLoop.h"
#include "lumen/runtime/Fields.h"
#include "lumen/services/nat/NatRules.h"
#include "lumen/services/nat/PortLog.h"
#include "platform/Keys.h"
#include "platform/wire/NatRules.h"
#include "services/nat/FakeKernel.h"
#include "support/ManualClock.h"

namespace {

using namespace std::chrono_literals;

using fuzz::require;
namespace key = lm::nat::key;

const std::array<lumen::Caller, 4> callers = {{
    {.connection = 1, .service = 40, .name = "upnp", .ports = lumen::PortGrant()},
    {.connection = 2, .service = 41, .name = "other", .ports = lumen::PortGrant()},
    {.connection = 3, .service = 0, .name = "", .ports = lumen::PortGrant()},
    {.connection = 4, .service = 0, .name = "", .administrator = true},
}};
const lumen::Caller& administrator = callers.back();

constexpr const char* nowhere = "/nonexistent";

/// Takes an input apart; at its end everything is 0.
class Input {
 public:
  explicit Input(std::string_view bytes) : rest_(bytes) {}

  [[nodiscard]] bool empty() const { return rest_.empty(); }
  uint8_t byte() {
    if (rest_.empty()) return 0;
    const auto first = static_cast<uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    return first;
  }
  /// A byte that is its length, and as many bytes.
  std::string_view block() {
    const std::string_view bytes = rest_.substr(0, byte() + size_t{1});
    if (bytes.empty()) return {};
    rest_.remove_prefix(bytes.size() - 1);
    return bytes.substr(1);
  }

 private:
  std::string_view rest_;
};

uint32_t portOf(uint8_t byte) {
  constexpr uint32_t special[] = {0, 1, 1023, 1024, 65535, 65536};
  return byte < std::size(special) ? special[byte] : 8000U + byte;
}

uint32_t externalOf(uint8_t byte) {
  constexpr const char* addresses[] = {"45.45.45.1", "192.168.88.1", "45.45.45.7"};
  return inet_addr(addresses[byte % std::size(addresses)]);
}

uint32_t clientOf(uint8_t byte) {
  constexpr const char* addresses[] = {"192.168.88.10", "192.168.88.11",  "192.168.88.1",
                                       "45.45.45.9",    "192.168.88.255", "10.1.2.3",
                                       "172.16.0.1",    "239.255.255.250"};
  return inet_addr(addresses[byte % std::size(addresses)]);
}

void insertClient(lm::message& request, Input& in) {
  const uint32_t client = clientOf(in.byte());
  const uint32_t port = portOf(in.byte());
  request.insert_be32(key::clientFirst, client);
  request.insert_be32(key::clientLast, client);
  request.insert_u32(key::clientPortFirst, port);
  request.insert_u32(key::clientPortLast, port);
}

void insertRemotes(lm::message& request, Input& in) {
  std::vector<lm::nat::RemoteNetwork> remotes(in.byte() % 4);
  for (lm::nat::RemoteNetwork& remote : remotes) {
    remote = {.address = clientOf(in.byte()), .prefix = in.byte() % 34U};
  }
  lm::nat::writeRemotes(request, remotes);
}

lm::message addRequest(Input& in) {
  const uint8_t how = in.byte();
  const uint32_t external = externalOf(how / 4);
  const uint32_t port = portOf(in.byte());
  const uint32_t client = clientOf(in.byte());
  lm::message request;
  lm::nat::write(request, lm::nat::Rule{.disabled = how % 4 == 3,
                                        .address = external,
                                        .port = port,
                                        .protocol = how % 2 == 0 ? uint32_t{IPPROTO_TCP}
                                                                 : uint32_t{IPPROTO_UDP},
                                        .client = client,
                                        .clientPort = portOf(in.byte()),
                                        .lease = how & 64 ? std::optional(1U) : std::nullopt,
                                        .anyPort = (how & 128) != 0});
  if ((how & 32) != 0) insertRemotes(request, in);
  return request;
}

lm::message setRequest(Input& in) {
  lm::message request;
  request.insert_u32(lm::key::objectId, in.byte());
  const uint8_t how = in.byte();
  if (how % 8 == 7) {
    request.insert_bool(key::closed, true);
    return request;
  }
  if (how % 8 < 4) request.insert_bool(lm::key::disabled, how % 2 == 1);
  if (how % 8 != 3) insertClient(request, in);
  if ((how & 64) != 0) request.insert_u32(key::lease, 1 + how / 128);
  if ((how & 32) != 0) insertRemotes(request, in);
  return request;
}

/// Puts the fields of an encoded message, if it is one, over those of `request`.
void spoil(lm::message& request, std::string_view encoded) {
  const auto fields = lm::decode(encoded);
  if (!fields) return;
  for (const lm::Field& field : fields->fields()) request.fields().set(field.key, field.value);
}

lumen::RuleKey keyOf(const lm::nat::Rule& rule) {
  return {.external = {.address = lumen::Ipv4Address::fromBytes(rule.address),
                       .port = static_cast<uint16_t>(rule.port)},
          .protocol = static_cast<uint8_t>(rule.protocol)};
}

/// Which ports are open, or would be if they were enabled, by what the record of events says.
class Record : public lumen::Notifier {
 public:
  void notify(uint32_t /*command*/, const std::vector<uint32_t>& /*source*/,
              const lm::message& fields) override {
    for (const lm::message& m : fields.get_message_array_ref(lm::key::records)) {
      const lm::nat::LogRecord event = lm::nat::readLogRecord(m);
      const lumen::RuleKey rule = keyOf(
          lm::nat::Rule{.address = event.address, .port = event.port, .protocol = event.protocol});
      require(event.reason.size() <= lumen::PortLog::longestReason, "a reason is short");
      if (event.event == static_cast<uint32_t>(lm::nat::Event::opened)) open_.insert(rule);
      if (event.event == static_cast<uint32_t>(lm::nat::Event::closed)) open_.erase(rule);
    }
  }

  [[nodiscard]] const std::set<lumen::RuleKey>& open() const { return open_; }

 private:
  std::set<lumen::RuleKey> open_;
};

/// Takes the notifications of changed rules.
class NoReaders : public lumen::Notifier {
 public:
  void notify(uint32_t /*command*/, const std::vector<uint32_t>& /*source*/,
              const lm::message& /*fields*/) override {}
};

/// The table on a kernel, flows and a clock that are ours.
class Router {
 public:
  Router(lumen::PolicyBook& policies, lm::test::ManualClock& clock, lm::EventLoop& loop)
      : policies_(policies), clock_(clock), loop_(loop) {
    require(map_.open("ruleset").ok() && map_.hasRemotes(), "the ruleset is good");
  }

  void happens(Input& in) {
    const uint8_t what = in.byte();
    const lumen::Caller& caller = callers[in.byte() % callers.size()];
    switch (what % 10) {
      case 0:
      case 1:
        return asks(caller, lm::cmd::addObject, addRequest(in), in);
      case 2:
        return asks(caller, lm::cmd::setObject, setRequest(in), in);
      case 3:
        return asks(caller, lm::cmd::removeObject, withId(in.byte()), in);
      case 4:
        return asks(caller, lm::cmd::readObject, withId(in.byte()), in);
      case 5:
        return asks(caller, lm::cmd::set, {}, in);
      case 6:
        return asks(caller, in.byte(), {}, in);
      case 7:
        return rules_.connectionEnded(caller.connection);
      case 8:
        return kernel_.refuseAfter(in.byte() % 4);
      default:
        return passes(10ms * in.byte());
    }
  }

  void checkTables() {
    std::map<std::string, std::string> open;
    std::map<lumen::Ipv4Address, uint32_t> ofClient;
    std::set<lumen::RuleKey> keys;
    std::set<lumen::RuleKey> notClosed;
    uint32_t count = 0;
    lm::message request;
    do {
      const lm::message page = rules_.handle(administrator, lm::cmd::list, request);
      for (const lm::message& record : page.get_message_array_ref(lm::key::records)) {
        const lumen::RuleKey rule = keyOf(lm::nat::readRule(record));
        const lumen::Endpoint client = clientOf(record);
        ++count;
        require(keys.insert(rule).second, "no port is open twice");
        if (!record.get_bool(key::closed)) notClosed.insert(rule);
        require(++ofClient[client.address] <= policies_.policy().maxRulesPerClient,
                "a client has no more rules than the policy allows");
        require(policies_.policy().allows(rule, client, networks_, networks_).ok(),
                "no rule is against the policy");
        if (!record.get_bool(lm::key::disabled) && !record.get_bool(key::closed)) {
          uint64_t packets = 0;
          for (const std::string& element : elementsOf(rule, record)) {
            open.emplace(element, textOf(client));
            packets += packetsOf(element);
          }
          // The connections so far are those that the elements count, and those before them.
          require(record.get_u64(key::uses) >= packets, "no connection is forgotten");
        }
      }
      request = page;
    } while (request.get_u32(lm::key::cursor, lm::none) != lm::none);
    require(count <= policies_.policy().maxRules, "there are no more rules than allowed");
    for (const auto& [rule, element] : kernel_.elements()) {
      const auto listed = open.find(rule);
      require(listed != open.end() && listed->second == element.client,
              "what is open in the kernel is listed");
    }
    require(notClosed == record_.open(), "the record of events says the same");
    require(open.size() == kernel_.elements().size(), "what is listed is open in the kernel");
  }

  void end() {
    for (const lumen::Caller& caller : callers) rules_.connectionEnded(caller.connection);
    require(kernel_.elements().empty(), "no port outlives its connection");
  }

 private:
  static lm::message withId(uint32_t id) {
    lm::message request;
    request.insert_u32(lm::key::objectId, id);
    return request;
  }

  static lumen::Endpoint clientOf(const lm::message& record) {
    const lm::nat::Rule rule = lm::nat::readRule(record);
    return {.address = lumen::Ipv4Address::fromBytes(rule.client),
            .port = static_cast<uint16_t>(rule.clientPort)};
  }
  static std::string textOf(const lumen::RuleKey& rule) {
    return rule.external.address.text() + " . " + lumen::protocolText(rule.protocol) + " . " +
           std::to_string(rule.external.port);
  }
  static std::string textOf(const lumen::Endpoint& client) {
    return client.address.text() + " . " + std::to_string(client.port);
  }

  void asks(const lumen::Caller& caller, uint32_t command, lm::message request, Input& in) {
    spoil(request, in.block());
    const auto before = kernel_.elements();
    const lm::message reply = rules_.handle(caller, command, request);
    if (!lm::isError(reply)) return;
    require(!lm::getError(reply).empty(), "a refusal has a reason");
    require(kernel_.elements() == before, "what is refused changes nothing");
  }

  static std::vector<std::string> elementsOf(const lumen::RuleKey& rule,
                                             const lm::message& record) {
    std::vector<std::string> elements;
    for (const lm::nat::RemoteNetwork& remote : lm::nat::readRemotes(record)) {
      const lumen::Ipv4Network network(lumen::Ipv4Address::fromBytes(remote.address),
                                       remote.prefix);
      elements.push_back(textOf(rule) + " . " + network.first().text() + "-" +
                         network.last().text());
    }
    if (elements.empty()) elements.push_back(textOf(rule));
    return elements;
  }

  [[nodiscard]] uint64_t packetsOf(const std::string& key) const {
    const auto element = kernel_.elements().find(key);
    require(element != kernel_.elements().end(), "what is listed is open in the kernel");
    return element->second.packets;
  }

  void passes(std::chrono::milliseconds time) {
    if (flows_.sweeping()) flows_.finishSweep();
    clock_.advance(time);
    loop_.turn(0ms);
  }

  lumen::PolicyBook& policies_;
  lm::test::ManualClock& clock_;
  lm::EventLoop& loop_;
  fuzz::ForwardsMap kernel_;
  lumen::test::FakeFlows flows_;
  lumen::test::FakeNetworks networks_;
  lumen::test::FakeListeners listeners_;
  lumen::NatMap map_{kernel_};
  lumen::FlowMarks marks_{nowhere};  // which are not kept
  Record record_;
  lumen::PortLog log_{record_};
  NoReaders readers_;
  lumen::NatRules rules_{map_,       flows_,    marks_, networks_, networks_,
                         listeners_, policies_, log_,   readers_,  clock_};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static lm::test::ManualClock clock;
  static lm::EventLoop loop(clock);
  // Without a store a policy can be judged and not be changed.
  static lumen::PolicyBook policies(NAT_POLICY_FILE, nowhere);
  static const bool loaded = policies.load().ok();
  require(loaded, "the policy is good");

  Router router(policies, clock, loop);
  for (Input in(fuzz::text(data, size)); !in.empty();) {
    router.happens(in);
    router.checkTables();
  }
  router.end();
  return 0;
}
