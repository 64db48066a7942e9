#include "lumen/services/pinholes/Pinholes.h"

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iterator>
#include <utility>

#include "lumen/runtime/Fields.h"
#include "lumen/runtime/Log.h"
#include "lumen/runtime/Paging.h"
#include "lumen/runtime/Refusal.h"
#include "lumen/services/nat/Admission.h"
#include "lumen/services/nat/PortRights.h"
#include "platform/Keys.h"

namespace lumen {

namespace {

namespace key = lm::pinholes::key;
using lm::pinholes::End;
using lm::pinholes::Refusal;

using lm::nat::Event;

constexpr std::string_view givenUp = "the request was given up";

constexpr std::array addFields = {key::address, key::protocol, key::port, key::lease, key::remotes};
constexpr std::array renewFields = {lm::key::objectId, key::lease, key::remotes};

/// How many remote networks all pinholes can have. The kernel copies their set for each change
/// (net/netfilter/nft_set_pipapo.c), and takes seconds to remove some thousands.
constexpr size_t mostRemotesOfAll = 1024;

/// A pinhole whose end the kernel refuses stays for so long until the next attempt.
constexpr std::chrono::seconds removalRetry(10);

PortLog::Author authorOf(const Caller& caller) {
  return {.name = caller.name.empty() ? administratorName : caller.name, .user = caller.user};
}

/// As much of the pinhole as the add request says, for the record.
PinholeKey outlineOf(const lm::message& request) {
  const lm::pinholes::Pinhole wire = lm::pinholes::readPinhole(request);
  return {.host = Ipv6Address::parse(wire.address).value_or(Ipv6Address()),
          .protocol = static_cast<uint8_t>(wire.protocol <= UINT8_MAX ? wire.protocol : 0),
          .port = static_cast<uint16_t>(wire.port <= UINT16_MAX ? wire.port : 0)};
}

Result<PinholeKey> readKey(const lm::message& request) {
  if (auto known = lm::checkFields(request, addFields); !known) return known.failure();
  const lm::pinholes::Pinhole wire = lm::pinholes::readPinhole(request);
  const auto host = Ipv6Address::parse(wire.address);
  if (!host) return Failure{"the host must be an IPv6 address"};
  if (wire.protocol != IPPROTO_TCP && wire.protocol != IPPROTO_UDP) {
    return Failure{"protocol must be 6 (TCP) or 17 (UDP)"};
  }
  if (wire.port < 1 || wire.port > UINT16_MAX) return Failure{"port must be from 1 to 65535"};
  if (wire.lease == 0) return Failure{"a pinhole must have a lease of at least one second"};
  return PinholeKey{.host = *host,
                    .protocol = static_cast<uint8_t>(wire.protocol),
                    .port = static_cast<uint16_t>(wire.port)};
}

/// None: the request does not say.
Result<std::optional<Ipv6NetworkList>> readRemotes(const lm::message& request) {
  if (request.fields().find(key::remotes) == nullptr) return std::optional<Ipv6NetworkList>();
  auto remotes = parseIpv6Networks(request.get_string(key::remotes));
  if (!remotes) return Failure{"the remote networks must be IPv6 networks with spaces between"};
  if (remotes->size() > lm::pinholes::mostRemotes) {
    return Failure{"a pinhole has at most " + std::to_string(lm::pinholes::mostRemotes) +
                   " remote networks"};
  }
  // The first one holds all others.
  if (!remotes->empty() && remotes->front().prefix() == 0) {
    return Failure{"the prefix of a remote network must be from 1 to 128"};
  }
  return remotes;
}

template <typename Key>
uint32_t countOf(const std::map<Key, uint32_t>& counts, const Key& key) {
  const auto it = counts.find(key);
  return it == counts.end() ? 0 : it->second;
}

template <typename Key>
void countDown(std::map<Key, uint32_t>& counts, const Key& key) {
  const auto it = counts.find(key);
  if (--it->second == 0) counts.erase(it);
}

/// Logs that the kernel refused to do `what`; returns what its requester is told.
std::string kernelRefusal(const std::string& what, const PinholeKey& key, const Failure& failure) {
  lm::logLine("pinhole ", what, " failed: ", keyText(key), ": ", failure.text);
  return "the kernel refused it: " + failure.text;
}

}  // namespace

Pinholes::Pinholes(PinholeSet& set, Ipv6Flows& flows, Ipv6Networks& networks,
                   Ipv6Forwarding& forwarding, const PolicyBook& policies, PortLog& log,
                   Notifier& notifier, const lm::Clock& clock)
    : set_(set),
      networks_(networks),
      forwarding_(forwarding),
      policies_(policies),
      log_(log),
      notifier_(notifier),
      clock_(clock),
      flows_(flows, *this, clock),
      leases_(*this, clock) {
  networks.setObserver(*this);
}

void Pinholes::begin(const std::string& path) {
  const Result<void> open = set_.open(path);
  problem_ = open ? "" : open.why();
  if (!open) lm::logLine("no IPv6 pinholes: ", problem_);
  flows_.begin(set_.label());
}

lm::message Pinholes::handle(const Caller& caller, uint32_t command, const lm::message& request) {
  switch (command) {
    case lm::cmd::addObject:
    case lm::cmd::setObject:
    case lm::cmd::removeObject:
      return change(caller, command, request);
    case lm::cmd::list:
    case lm::cmd::readAll:
    case lm::cmd::readObject:
    case lm::cmd::get:
      break;
    default:
      return lm::refusal("unknown command");
  }
  if (!caller.mayRead()) return lm::refusal("not permitted");
  const auto written = [this](uint32_t id, const Pinhole& pinhole) {
    lm::message m;
    lm::pinholes::write(m, record(id, pinhole));
    return m;
  };
  if (command == lm::cmd::get) {
    const OptionalRefused refused = refuseAll();
    lm::message reply;
    reply.insert_string(key::problem, refused ? refused->text : "");
    if (set_.hasRemotes()) reply.insert_bool(key::remotesPossible, true);
    return reply;
  }
  if (command == lm::cmd::readObject) {
    const auto it = table_.find(request.get_u32(lm::key::objectId));
    if (it == table_.end()) return lm::refusal("no such object");
    return written(it->first, it->second);
  }
  return lm::pagedAnswer(request, table_, written);
}

void Pinholes::connectionEnded(uint64_t connection) {
  dropAll([&](const Pinhole& pinhole) { return pinhole.connection == connection; }, std::nullopt,
          "the program that had it ended");
}

lm::message Pinholes::change(const Caller& caller, uint32_t command, const lm::message& request) {
  PinholeKey about = outlineOf(request);
  if (command != lm::cmd::addObject) {
    const auto known = table_.find(request.get_u32(lm::key::objectId));
    about = known == table_.end() ? PinholeKey() : known->second.key;
  }
  lm::message reply;
  const OptionalRefused refused = command == lm::cmd::addObject   ? add(caller, request, reply)
                                  : command == lm::cmd::setObject ? renew(caller, request)
                                                                  : remove(caller, request);
  if (!refused) return reply;
  note(Event::refused, authorOf(caller), about, refused->text);
  reply = lm::refusal(refused->text);
  reply.insert_u32(key::refusal, static_cast<uint32_t>(refused->why));
  return reply;
}

Pinholes::OptionalRefused Pinholes::add(const Caller& caller, const lm::message& request,
                                        lm::message& reply) {
  const PortRights rights(caller);
  if (auto refused = asRefusal(rights.toOpenPorts(), Refusal::rights)) return refused;
  const auto wanted = readKey(request);
  if (!wanted) return Refused{wanted.why()};
  const auto remotes = readRemotes(request);
  if (!remotes) return Refused{remotes.why()};
  const std::chrono::seconds lease(request.get_u32(key::lease));
  if (auto refused = asRefusal(rights.toLease(lease), Refusal::rights)) return refused;
  if (auto refused = refuseAll()) return refused;
  if (auto refused = refuseByPolicy(*wanted)) return refused;
  if (ids_.contains(*wanted)) {
    return Refused{keyText(*wanted) + " is open already", Refusal::conflict};
  }
  const Pinhole pinhole = {.key = *wanted,
                           .remotes = remotes->value_or(Ipv6NetworkList()),
                           .interface = networks_.internalInterfaceOf(wanted->host).value_or(""),
                           .connection = caller.connection,
                           .owner = authorOf(caller).name,
                           .user = caller.user,
                           .addedAt = clock_.now(),
                           .until = clock_.now() + lease};
  if (auto refused = refuseRemotes(pinhole.remotes, 0)) return refused;
  if (auto refused = refuseFull(caller, pinhole)) return refused;
  if (const auto added = set_.add(pinhole); !added) {
    return Refused{kernelRefusal("add", pinhole.key, added.failure())};
  }
  const uint32_t id = nextId();
  insert(id, pinhole);
  note(Event::opened, pinhole, "");
  undoWith([this, id, pinhole] {
    const auto it = table_.find(id);
    if (it != table_.end() && drop(it, std::nullopt)) note(Event::closed, pinhole, givenUp);
  });
  reply.insert_u32(lm::key::objectId, id);
  return std::nullopt;
}

Pinholes::OptionalRefused Pinholes::renew(const Caller& caller, const lm::message& request) {
  const uint32_t id = request.get_u32(lm::key::objectId);
  const auto it = table_.find(id);
  if (it == table_.end()) return Refused{"no such object"};
  if (it->second.connection != caller.connection && !caller.administrator) {
    return Refused{"not permitted"};
  }
  if (const auto known = lm::checkFields(request, renewFields); !known) return Refused{known.why()};
  const std::chrono::seconds lease(request.get_u32(key::lease));
  if (lease.count() == 0) return Refused{"a pinhole must have a lease of at least one second"};
  if (auto refused = asRefusal(PortRights(caller).toLease(lease), Refusal::rights)) return refused;
  if (auto refused = refuseByPolicy(it->second.key)) return refused;
  const auto remotes = readRemotes(request);
  if (!remotes) return Refused{remotes.why()};
  if (*remotes) {
    if (auto refused = refuseRemotes(**remotes, it->second.remotes.size())) return refused;
  }
  const Pinhole before = it->second;
  Pinhole after = before;
  after.until = clock_.now() + lease;
  after.remotes = remotes->value_or(before.remotes);
  if (const auto done = replace(it, after); !done) return Refused{done.why()};
  undoWith([this, id, before] {
    if (const auto now = table_.find(id); now != table_.end()) (void)replace(now, before);
  });
  return std::nullopt;
}

Pinholes::OptionalRefused Pinholes::remove(const Caller& caller, const lm::message& request) {
  const uint32_t id = request.get_u32(lm::key::objectId);
  const auto it = table_.find(id);
  if (it == table_.end()) return Refused{"no such object"};
  const bool byOwner = it->second.connection == caller.connection;
  if (!byOwner && !caller.administrator) return Refused{"not permitted"};
  const Pinhole removed = it->second;
  const auto done = drop(it, byOwner ? std::nullopt : OptionalEnd(End::administrator));
  if (!done) return Refused{done.why()};
  note(Event::closed, authorOf(caller), removed.key, "");
  // An owner that was told of the end of its pinhole has forgotten it.
  if (byOwner) undoWith([this, id, removed] { undoRemove(id, removed); });
  return std::nullopt;
}

void Pinholes::undoRemove(uint32_t id, const Pinhole& removed) {
  if (ids_.contains(removed.key)) {
    lm::logLine("pinhole add failed: ", keyText(removed.key), ": open again since its removal");
    return;
  }
  if (const auto added = set_.add(removed); !added) {
    (void)kernelRefusal("add", removed.key, added.failure());
    return;
  }
  insert(id, removed);
  note(Event::opened, removed, givenUp);
}

Pinholes::OptionalRefused Pinholes::asRefusal(const Result<void>& allowed, Refusal why) {
  if (allowed) return std::nullopt;
  return Refused{allowed.why(), why};
}

Pinholes::OptionalRefused Pinholes::refuseAll() const {
  if (!problem_.empty()) return Refused{"no IPv6 pinholes: " + problem_, Refusal::notPrepared};
  if (!forwarding_.isOn()) {
    return Refused{"this router does not forward IPv6: net.ipv6.conf.all.forwarding is 0",
                   Refusal::notForwarding};
  }
  return std::nullopt;
}

Pinholes::OptionalRefused Pinholes::refuseRemotes(const Ipv6NetworkList& remotes,
                                                  size_t others) const {
  if (remotes.empty()) return std::nullopt;
  if (!set_.hasRemotes()) {
    return Refused{
        "the pinhole ruleset file has no set \"filtered\" for pinholes that name remote networks",
        Refusal::notPrepared};
  }
  if (remotes_ - others + remotes.size() <= mostRemotesOfAll) return std::nullopt;
  return Refused{
      "all pinholes together have at most " + std::to_string(mostRemotesOfAll) + " remote networks",
      Refusal::full};
}

Pinholes::OptionalRefused Pinholes::refuseByPolicy(const PinholeKey& key) const {
  const Policy& policy = policies_.policy();
  const std::string port = "port " + std::to_string(key.port);
  const auto interface = networks_.internalInterfaceOf(key.host);
  if (!interface) {
    const bool own = networks_.isOwn(key.host);
    return Refused{"host " + key.host.text() +
                       (own ? " is this router" : " is in no network of an internal interface"),
                   Refusal::policy};
  }
  if (!policy.internalClients.containsAllOf(*interface)) {
    return Refused{"hosts of " + *interface + " are not allowed by the policy", Refusal::policy};
  }
  if (!policy.externalPorts.contains(key.port) || !policy.internalPorts.contains(key.port)) {
    return Refused{port + " is not allowed by the policy", Refusal::policy};
  }
  return std::nullopt;
}

Pinholes::OptionalRefused Pinholes::refuseFull(const Caller& caller, const Pinhole& pinhole) const {
  const Policy& policy = policies_.policy();
  if (table_.size() >= policy.maxRules) {
    return Refused{"there are as many pinholes as the policy allows", Refusal::full};
  }
  const uint32_t ofHost = countOf(byHost_, pinhole.key.host);
  if (ofHost >= policy.maxRulesPerClient) {
    return Refused{
        "host " + pinhole.key.host.text() + " has all the pinholes that the policy allows it",
        Refusal::full};
  }
  // A host can have any number of IPv6 addresses and of hardware addresses. What it cannot choose
  // is its link: that bounds a host with very many of them, and leaves the other links their share.
  const uint32_t ofInterface = countOf(byInterface_, pinhole.interface);
  const uint32_t share = policy.maxRules - policy.keptPlaces();
  if (ofInterface >= share) {
    return Refused{"hosts of " + pinhole.interface + " have " + std::to_string(ofInterface) +
                       " pinholes, and the last " + std::to_string(policy.keptPlaces()) +
                       " places are kept for those of other interfaces",
                   Refusal::full};
  }
  if (ofHost >= Policy::fewRules && ofInterface >= share - policy.keptPlaces()) {
    return Refused{"host " + pinhole.key.host.text() + " has " + std::to_string(ofHost) +
                       " pinholes, and the last " + std::to_string(policy.keptPlaces()) +
                       " places of " + pinhole.interface +
                       " are kept for hosts that have fewer than " +
                       std::to_string(Policy::fewRules),
                   Refusal::full};
  }
  const auto own = std::ranges::count_if(
      table_, [&](const auto& entry) { return entry.second.owner == pinhole.owner; });
  return asRefusal(PortRights(caller).toOneMore("pinholes", static_cast<size_t>(own)),
                   Refusal::full);
}

Result<void> Pinholes::drop(Table::iterator it, OptionalEnd end) {
  if (const auto removed = set_.remove({it->second}); !removed) {
    return Failure{kernelRefusal("remove", it->second.key, removed.failure())};
  }
  erase(it, end);
  return {};
}

template <typename Ends>
void Pinholes::dropAll(const Ends& ends, OptionalEnd end, std::string_view why) {
  std::vector<uint32_t> ids;
  std::vector<Pinhole> pinholes;
  for (const auto& [id, pinhole] : table_) {
    if (!ends(pinhole)) continue;
    ids.push_back(id);
    pinholes.push_back(pinhole);
  }
  const bool all = set_.remove(pinholes).ok();
  for (const uint32_t id : ids) {
    const auto it = table_.find(id);
    const Pinhole ended = it->second;
    // One that the kernel keeps must not keep the others.
    if (all) {
      erase(it, end);
    } else if (!drop(it, end)) {
      setUntil(it, clock_.now() + removalRetry);
      continue;
    }
    note(Event::closed, ended, why);
  }
}

Result<void> Pinholes::replace(Table::iterator it, const Pinhole& after) {
  if (after.remotes != it->second.remotes) {
    if (const auto changed = set_.change(it->second, after); !changed) {
      return Failure{kernelRefusal("change", after.key, changed.failure())};
    }
    remotes_ = remotes_ - it->second.remotes.size() + after.remotes.size();
    it->second.remotes = after.remotes;
    if (after.key.protocol == IPPROTO_UDP) flows_.narrowed();
  }
  setUntil(it, after.until);
  return {};
}

void Pinholes::setUntil(Table::iterator it, lm::Clock::Time until) {
  leases_.remove(it->first, it->second.until);
  it->second.until = until;
  leases_.add(it->first, until);
  lm::message changed;
  lm::pinholes::write(changed, record(it->first, it->second));
  notify(it->second.connection, std::move(changed), std::nullopt);
}

void Pinholes::insert(uint32_t id, const Pinhole& pinhole) {
  table_.insert_or_assign(id, pinhole);
  ids_.insert_or_assign(pinhole.key, id);
  remotes_ += pinhole.remotes.size();
  ++byHost_[pinhole.key.host];
  ++byInterface_[pinhole.interface];
  leases_.add(id, pinhole.until);
  lm::message opened;
  lm::pinholes::write(opened, record(id, pinhole));
  notify(pinhole.connection, std::move(opened), std::nullopt);
}

void Pinholes::erase(Table::iterator it, OptionalEnd end) {
  const Pinhole pinhole = it->second;
  lm::pinholes::Record last = record(it->first, pinhole);
  last.ended = end;
  lm::message gone;
  lm::pinholes::write(gone, last);
  gone.insert_u32(lm::key::removed, 1);
  leases_.remove(it->first, pinhole.until);
  ids_.erase(pinhole.key);
  remotes_ -= pinhole.remotes.size();
  countDown(byHost_, pinhole.key.host);
  countDown(byInterface_, pinhole.interface);
  table_.erase(it);
  if (pinhole.key.protocol == IPPROTO_UDP) flows_.narrowed();
  notify(pinhole.connection, std::move(gone), end);
}

uint32_t Pinholes::nextId() {
  do {
    lastId_ = lastId_ >= lm::none - 1 ? 1 : lastId_ + 1;
  } while (table_.contains(lastId_));
  return lastId_;
}

void Pinholes::leasesEnded(const std::vector<uint32_t>& ids) {
  const lm::Clock::Time now = clock_.now();
  (void)ids;
  dropAll([&](const Pinhole& pinhole) { return pinhole.until <= now; }, End::lease,
          "the lease ended");
}

void Pinholes::internalHostsChanged() {
  dropAll([this](const Pinhole& one) { return !networks_.internalInterfaceOf(one.key.host); },
          End::addressGone, "its host is in no network of an internal interface");
}

bool Pinholes::admits(const Ipv6Flow& flow) const {
  const auto id = ids_.find({.host = flow.destination, .protocol = IPPROTO_UDP, .port = flow.port});
  return id != ids_.end() && table_.at(id->second).admits(flow.source);
}

lm::pinholes::Record Pinholes::record(uint32_t id, const Pinhole& pinhole) const {
  const lm::Clock::Time now = clock_.now();
  const auto left = std::chrono::ceil<std::chrono::seconds>(std::max(pinhole.until, now) - now);
  const auto age = std::chrono::floor<std::chrono::seconds>(now - pinhole.addedAt);
  return {.pinhole = {.address = pinhole.key.host.text(),
                      .protocol = pinhole.key.protocol,
                      .port = pinhole.key.port,
                      .lease = static_cast<uint32_t>(left.count()),
                      .remotes = networksText(pinhole.remotes)},
          .id = id,
          .owner = pinhole.owner,
          .seconds = static_cast<uint64_t>(age.count())};
}

void Pinholes::note(Event event, const Pinhole& pinhole, std::string_view reason) {
  note(event, {.name = pinhole.owner, .user = pinhole.user}, pinhole.key, reason);
}

void Pinholes::note(Event event, const PortLog::Author& author, const PinholeKey& key,
                    std::string_view reason) {
  log_.add(event, author, key.host, key.protocol, key.port, reason);
}

void Pinholes::notify(uint64_t owner, lm::message record, OptionalEnd end) {
  lm::message news;
  news.insert_message_array(lm::key::records, {std::move(record)});
  if (end) return notifier_.notifyWithOwner(owner, lm::cmd::changed, lm::pinholes::path(), news);
  notifier_.notify(lm::cmd::changed, lm::pinholes::path(), news);
}

}  // namespace lumen
