#include "lumen/services/nat/NatRules.h"

#include <netinet/in.h>

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/Paging.h"
#include "lumen/runtime/Refusal.h"
#include "platform/Keys.h"

namespace lumen {

namespace {

using lm::nat::Event;

constexpr std::string_view givenUp = "the request was given up";

/// How many remote networks all rules can have. The kernel copies their map for each change
/// (net/netfilter/nft_set_pipapo.c), and takes seconds to remove some thousands.
constexpr size_t mostRemotesOfAll = 1024;

/// A rule whose lease is over and that the kernel does not remove stays for so long until the next
/// attempt.
constexpr std::chrono::seconds removalRetry(10);

PortLog::Author authorOf(const Caller& caller) {
  return {.name = caller.name.empty() ? administratorName : caller.name, .user = caller.user};
}

/// As much of the rule as the add request says, for the record.
Rule outlineOf(const lm::message& request) {
  const lm::nat::Rule wire = lm::nat::readRule(request);
  const auto port = [](uint32_t number) {
    return static_cast<uint16_t>(number <= UINT16_MAX ? number : 0);
  };
  Rule rule;
  rule.key = {
      .external = {.address = Ipv4Address::fromBytes(wire.address), .port = port(wire.port)},
      .protocol = static_cast<uint8_t>(wire.protocol <= UINT8_MAX ? wire.protocol : 0)};
  rule.client = {.address = Ipv4Address::fromBytes(wire.client), .port = port(wire.clientPort)};
  return rule;
}

/// What a change of a rule has done to it; empty: nothing.
std::string describeChange(const Rule& before, const Rule& after) {
  if (after.disabled != before.disabled) return after.disabled ? "disabled" : "enabled";
  if (before.client != after.client) return "was to " + before.client.text();
  if (before.remotes == after.remotes) return {};
  return "was from " + (before.remotes.empty() ? "anywhere" : networksText(before.remotes));
}

std::string describeNew(const Rule& rule) {
  if (rule.disabled) return "disabled";
  return rule.remotes.empty() ? "" : "from " + networksText(rule.remotes);
}

Refused asRefusal(const Failure& failure) { return {.text = failure.text}; }

/// Logs that the kernel refused to do `what`; returns what its requester is told.
Failure kernelRefusal(const std::string& what, const RuleKey& key, const Failure& failure) {
  lm::logLine("nat ", what, " failed: ", keyText(key), ": ", failure.text);
  return {"the kernel refused it: " + failure.text};
}

}  // namespace

NatRules::NatRules(NatMap& map, Flows& flows, const FlowMarks& marks, const LocalNetworks& networks,
                   const KnownInterfaces& interfaces, Listeners& listeners, PolicyBook& policies,
                   PortLog& log, Notifier& notifier, const lm::Clock& clock)
    : map_(map),
      flows_(flows),
      networks_(networks),
      policies_(policies),
      log_(log),
      notifier_(notifier),
      clock_(clock),
      admission_(table_, networks, interfaces, listeners, policies),
      cleaner_(flows, *this, marks, clock),
      leases_(*this, clock) {}

lm::message NatRules::handle(const Caller& caller, uint32_t command, const lm::message& request) {
  switch (command) {
    case lm::cmd::addObject:
    case lm::cmd::setObject:
    case lm::cmd::removeObject:
      return change(caller, command, request);
    case lm::nat::findOther:
      return findOther(caller, request);
    case lm::cmd::list:
    case lm::cmd::readAll:
    case lm::cmd::readObject:
    case lm::cmd::get:
    case lm::cmd::set:
      break;
    default:
      return lm::refusal("unknown command");
  }
  if (!(command == lm::cmd::set ? caller.administrator : caller.mayRead())) {
    return lm::refusal("not permitted");
  }
  switch (command) {
    case lm::cmd::readObject:
      return read(request);
    case lm::cmd::get:
      return settings();
    case lm::cmd::set:
      return writePolicy(request);
    default:
      return list(caller, request);
  }
}

void NatRules::connectionEnded(uint64_t connection) {
  if (listing_ && listing_->reader == connection) listing_.reset();
  if (everAdded_.erase(connection) == 0) return;
  std::vector<Rule> inKernel;
  for (auto it = table_.rules().begin(); it != table_.rules().end();) {
    auto next = std::next(it);
    if (it->second.connection == connection) {
      if (it->second.inKernel()) inKernel.push_back(it->second);
      note(Event::closed, it->second, "the program that had it ended");
      eraseForGood(it, {});
    }
    it = next;
  }
  (void)removeFromKernel(inKernel);
}

lm::message NatRules::change(const Caller& caller, uint32_t command, const lm::message& request) {
  Rule about = outlineOf(request);
  if (command != lm::cmd::addObject) {
    const auto known = table_.find(request.get_u32(lm::key::objectId));
    about = known == table_.rules().end() ? Rule() : known->second;
  }
  lm::message reply;
  const std::optional<Refused> refused = command == lm::cmd::addObject ? add(caller, request, reply)
                                         : command == lm::cmd::setObject ? set(caller, request)
                                                                         : remove(caller, request);
  if (!refused) return reply;
  if (refused->isOwnPort) {
    log_.addRefusalOfOwnPort(authorOf(caller), about.key, about.client, refused->text);
  } else {
    note(Event::refused, authorOf(caller), about, refused->text);
  }
  reply = lm::refusal(refused->text);
  lm::nat::write(reply, refused->denial);
  return reply;
}

std::optional<Refused> NatRules::add(const Caller& caller, const lm::message& request,
                                     lm::message& reply) {
  auto wanted = readRule(request);
  if (!wanted) return asRefusal(wanted.failure());
  Rule& rule = wanted->rule;
  rule.connection = caller.connection;
  rule.owner = &table_.ownerName(authorOf(caller).name);
  rule.user = caller.user;
  rule.addedAt = clock_.now();
  if (wanted->lease) rule.until = rule.addedAt + *wanted->lease;
  if (auto refused = refuseRemotes(rule)) return refused;
  if (auto refused = admission_.refuseAdd(caller, rule, wanted->anyPort)) return refused;

  if (rule.inKernel()) {
    const auto added = addToKernel(rule);
    if (!added) return asRefusal(kernelRefusal("add", rule.key, added.failure()));
  }
  const uint32_t id = table_.nextId();
  insert(id, rule, {});
  note(Event::opened, rule, describeNew(rule));
  everAdded_[caller.connection].add(id);
  undoWith([this, id] { undoAdd(id); });
  reply.insert_u32(lm::key::objectId, id);
  if (wanted->anyPort) reply.insert_u32(lm::nat::key::portFirst, rule.key.external.port);
  return std::nullopt;
}

void NatRules::undoAdd(uint32_t id) {
  auto it = table_.find(id);
  if (it == table_.rules().end()) return;
  const Rule added = it->second;
  if (drop(it, {})) note(Event::closed, added, givenUp);
}

std::optional<Refused> NatRules::set(const Caller& caller, const lm::message& request) {
  auto it = table_.find(request.get_u32(lm::key::objectId));
  if (it == table_.rules().end()) return Refused{.text = "no such object"};
  const Rule& before = it->second;
  if (before.connection != caller.connection && !caller.administrator) {
    return Refused{.text = "not permitted"};
  }
  const auto change = readChange(request);
  if (!change) return asRefusal(change.failure());
  if (change->close && !caller.administrator) return Refused{.text = "not permitted"};

  Rule after = before;
  after.closed = before.closed || change->close;
  after.disabled = change->disabled.value_or(before.disabled);
  after.client.address = change->clientAddress.value_or(before.client.address);
  after.client.port = change->clientPort.value_or(before.client.port);
  const lm::Clock::Time now = clock_.now();
  if (change->lease) {
    if (before.closed) {
      return Refused{.text = keyText(before.key) + " was closed by the administrator",
                     .denial = {.why = lm::nat::Refusal::policy}};
    }
    after.until = now + *change->lease;
  }
  if (change->remotes) {
    after.remotes = *change->remotes;
    if (auto refused = refuseRemotes(after)) return refused;
  }
  if (!change->close) {
    if (auto refused = admission_.refuseSet(caller, before, after, now)) return refused;
  }
  const Rule replaced = before;
  const bool closing = after.closed && !replaced.closed;
  const News news = closing ? endedBy(lm::nat::End::administrator) : News();
  if (const auto done = replace(it, after, news); !done) return asRefusal(done.failure());
  if (closing) {
    note(Event::closed, authorOf(caller), after, "");
  } else if (const std::string what = describeChange(replaced, after); !what.empty()) {
    note(Event::changed, authorOf(caller), after, what);
  }
  undoWith([this, id = request.get_u32(lm::key::objectId), replaced, closing] {
    undoSet(id, replaced, closing);
  });
  return std::nullopt;
}

// Another requester can have changed the rest of the rule meanwhile.
void NatRules::undoSet(uint32_t id, const Rule& before, bool closing) {
  auto it = table_.find(id);
  if (it == table_.rules().end()) return;
  Rule after = it->second;
  if (closing) {
    after.closed = false;
  } else {
    after.disabled = before.disabled;
    after.client = before.client;
    after.remotes = before.remotes;
    after.until = before.until;
  }
  // The owner was told that the port is closed.
  if (!replace(it, after, {.toOwner = closing})) return;
  note(closing ? Event::opened : Event::changed, after, givenUp);
}

Result<void> NatRules::replace(Rules::iterator it, Rule after, News news) {
  if (it->second.inKernel() && !after.inKernel()) {
    if (after.earlierUses) {
      const auto uses = map_.uses(it->second);
      if (uses) *after.earlierUses += *uses;
    }
  }
  const auto applied = apply(it->second, after);
  if (!applied) return kernelRefusal("change", after.key, applied.failure());
  uint32_t id = it->first;
  erase(it);
  insert(id, after, news);
  return {};
}

std::optional<Refused> NatRules::remove(const Caller& caller, const lm::message& request) {
  uint32_t id = request.get_u32(lm::key::objectId);
  auto it = table_.find(id);
  if (it == table_.rules().end()) {
    // A reply that was lost must not leave its owner with a rule that it cannot get rid of.
    auto history = everAdded_.find(caller.connection);
    bool had = history != everAdded_.end() && history->second.contains(id);
    if (had) return std::nullopt;
    return Refused{.text = "no such object"};
  }
  const Rule& rule = it->second;
  if (rule.connection != caller.connection && !caller.administrator) {
    return Refused{.text = "not permitted"};
  }
  const Rule removed = rule;
  const bool byOwner = rule.connection == caller.connection;
  const News news = byOwner ? News() : endedBy(lm::nat::End::administrator);
  if (const auto done = drop(it, news); !done) return asRefusal(done.failure());
  note(Event::closed, authorOf(caller), removed, "");
  // An owner that was told of the end of its rule has forgotten it.
  if (byOwner) undoWith([this, id, removed] { undoRemove(id, removed); });
  return std::nullopt;
}

Result<void> NatRules::drop(Rules::iterator it, News news) {
  const Rule& rule = it->second;
  if (rule.inKernel()) {
    const auto removed = map_.remove({rule});
    if (!removed) return kernelRefusal("remove", rule.key, removed.failure());
    flowsMayDiffer(rule.key);
  }
  eraseForGood(it, news);
  return {};
}

void NatRules::undoRemove(uint32_t id, const Rule& removed) {
  if (table_.find(removed.key) != nullptr) {
    lm::logLine("nat add failed: ", keyText(removed.key), ": in use since its removal");
    return;
  }
  Rule rule = removed;
  if (rule.inKernel()) {
    rule.earlierUses.reset();  // its counter has gone with its element
    if (const auto added = addToKernel(rule); !added) {
      (void)kernelRefusal("add", rule.key, added.failure());
      return;
    }
  }
  insert(id, rule, {});
  note(Event::opened, rule, givenUp);
}

lm::message NatRules::findOther(const Caller& caller, const lm::message& request) const {
  if (!caller.administrator && !caller.ports) return lm::refusal("not permitted");
  const Rule wanted = outlineOf(request);
  uint32_t port = 0;
  // Of the client's rules: with none there is no need to look at all.
  uint32_t left = table_.sizeOf(wanted.client.address);
  for (auto it = table_.rules().begin(); left > 0 && port == 0; ++it) {
    const Rule& rule = it->second;
    if (rule.client.address != wanted.client.address) continue;
    --left;
    const bool leadsThere = rule.client.port == wanted.client.port &&
                            rule.key.protocol == wanted.key.protocol &&
                            rule.key.external.address == wanted.key.external.address;
    const bool isOpen = rule.inKernel() && rule.remotes.empty();
    if (leadsThere && isOpen && *rule.owner != authorOf(caller).name) port = rule.key.external.port;
  }
  lm::message reply;
  reply.insert_u32(lm::nat::key::portFirst, port);
  return reply;
}

lm::message NatRules::list(const Caller& caller, const lm::message& request) {
  bool firstPage = request.get_u32(lm::key::cursor, lm::none) == lm::none;
  if (firstPage || !listing_ || listing_->reader != caller.connection) {
    listing_ = Listing{.reader = caller.connection, .counts = count()};
  }
  lm::message page = lm::pagedAnswer(
      request, table_.rules(),
      [this](uint32_t id, const Rule& rule) { return record(id, rule, listing_->counts); });
  if (page.get_u32(lm::key::cursor, lm::none) == lm::none) listing_.reset();
  return page;
}

lm::message NatRules::read(const lm::message& request) {
  auto it = table_.find(request.get_u32(lm::key::objectId));
  if (it == table_.rules().end()) return lm::refusal("no such object");
  return record(it->first, it->second, count());
}

lm::message NatRules::settings() const {
  lm::message reply = policies_.settings();
  if (map_.hasRemotes()) reply.insert_bool(lm::nat::key::remotesPossible, true);
  return reply;
}

std::optional<Refused> NatRules::refuseRemotes(const Rule& rule) const {
  if (rule.remotes.empty()) return std::nullopt;
  if (!map_.hasRemotes()) {
    return Refused{.text =
                       "the NAT ruleset file has no map \"filtered\" for rules that name remote "
                       "networks",
                   .denial = {.why = lm::nat::Refusal::policy}};
  }
  size_t all = rule.remotes.size();
  for (const auto& [id, other] : table_.rules()) {
    if (other.key != rule.key) all += other.remotes.size();
  }
  if (all <= mostRemotesOfAll) return std::nullopt;
  return Refused{.text = "all rules together have at most " + std::to_string(mostRemotesOfAll) +
                         " remote networks",
                 .denial = {.why = lm::nat::Refusal::full}};
}

lm::message NatRules::writePolicy(const lm::message& request) {
  const PolicyBook::State before = policies_.state();
  if (const auto written = policies_.write(request); !written)
    return lm::refusal(written.failure());
  undoWith([this, before] { policies_.restore(before); });
  return {};
}

Result<void> NatRules::apply(const Rule& before, const Rule& after) {
  if (!before.inKernel() && !after.inKernel()) return {};
  if (!before.inKernel()) return addToKernel(after);
  if (after.inKernel() && before.client == after.client && before.remotes == after.remotes) {
    return {};
  }
  auto applied = after.inKernel() ? map_.change(before, after) : map_.remove({before});
  if (applied) flowsMayDiffer(after.key);
  return applied;
}

Result<void> NatRules::addToKernel(const Rule& rule) {
  if (rule.key.protocol == IPPROTO_UDP) cleaner_.opens(rule.key.external);
  auto added = map_.add(rule);
  flowsMayDiffer(rule.key);
  return added;
}

std::set<RuleKey> NatRules::removeFromKernel(const std::vector<Rule>& rules) {
  std::set<RuleKey> kept;
  if (const auto removed = map_.remove(rules); !removed) {
    lm::logLine("nat remove of ", rules.size(), " rules failed: ", removed.why());
    for (const Rule& rule : rules) {
      if (const auto one = map_.remove({rule}); !one) {
        lm::logLine("nat remove failed: ", keyText(rule.key), ": ", one.why());
        kept.insert(rule.key);
      }
    }
  }
  for (const Rule& rule : rules) flowsMayDiffer(rule.key);
  return kept;
}

void NatRules::leasesEnded(const std::vector<uint32_t>& ids) {
  std::vector<Rule> inKernel;
  for (const uint32_t id : ids) {
    const Rule& rule = table_.find(id)->second;
    if (rule.inKernel()) inKernel.push_back(rule);
  }
  const std::set<RuleKey> kept = removeFromKernel(inKernel);
  for (const uint32_t id : ids) {
    const auto it = table_.find(id);
    if (kept.contains(it->second.key)) {
      it->second.until = clock_.now() + removalRetry;
      leases_.add(id, *it->second.until);
      continue;
    }
    note(Event::closed, it->second, "the lease ended");
    eraseForGood(it, endedBy(lm::nat::End::lease));
  }
}

void NatRules::flowsMayDiffer(const RuleKey& key) {
  if (key.protocol == IPPROTO_UDP) cleaner_.changed(key.external);
}

void NatRules::note(Event event, const Rule& rule, std::string_view reason) {
  note(event, {.name = *rule.owner, .user = rule.user}, rule, reason);
}

void NatRules::note(Event event, const PortLog::Author& author, const Rule& rule,
                    std::string_view reason) {
  log_.add(event, author, rule.key, rule.client, reason);
}

void NatRules::insert(uint32_t id, const Rule& rule, News news) {
  table_.insert(id, rule);
  if (rule.until) leases_.add(id, *rule.until);
  notify(rule.connection, record(id, rule, {}), news);
}

void NatRules::erase(Rules::iterator it) {
  if (const auto until = it->second.until) leases_.remove(it->first, *until);
  table_.erase(it);
}

void NatRules::eraseForGood(Rules::iterator it, News news) {
  lm::message gone = record(it->first, it->second, {});
  gone.insert_u32(lm::key::removed, 1);
  const uint64_t owner = it->second.connection;
  erase(it);
  notify(owner, std::move(gone), news);
}

// Counting connections for a notification would cost more than the change.
void NatRules::notify(uint64_t owner, lm::message record, News news) {
  if (news.end) record.insert_u32(lm::nat::key::ended, static_cast<uint32_t>(*news.end));
  lm::message fields;
  fields.insert_message_array(lm::key::records, {std::move(record)});
  if (news.toOwner) {
    notifier_.notifyWithOwner(owner, lm::cmd::changed, lm::nat::path(), fields);
  } else {
    notifier_.notify(lm::cmd::changed, lm::nat::path(), fields);
  }
}

NatRules::Counts NatRules::count() {
  Counts counts;
  if (table_.rules().empty()) return counts;
  if (auto uses = map_.uses()) {
    counts.uses = std::move(*uses);
  } else {
    lm::logLine("nat uses failed: ", uses.why());
  }
  Numbers connections;
  const bool complete = flows_.visitTranslated([&](const Flow& flow) {
    RuleKey key{.external = flow.destination, .protocol = flow.protocol};
    const Rule* const rule = table_.find(key);
    if (rule != nullptr && rule->admits(flow.source)) ++connections[key];
  });
  if (complete) counts.connections = std::move(connections);
  return counts;
}

lm::message NatRules::record(uint32_t id, const Rule& rule, const Counts& counts) const {
  const auto of = [&rule](const std::optional<Numbers>& numbers) -> std::optional<uint64_t> {
    if (!numbers) return std::nullopt;
    auto it = numbers->find(rule.key);
    return it == numbers->end() ? 0 : it->second;
  };
  RuleStatus status{.age = std::chrono::floor<std::chrono::seconds>(clock_.now() - rule.addedAt),
                    .connections = of(counts.connections),
                    .stale = !networks_.interfaceOf(rule.key.external.address)};
  if (rule.until) {
    const lm::Clock::Time now = clock_.now();
    status.left = std::chrono::ceil<std::chrono::seconds>(std::max(*rule.until, now) - now);
  }
  std::optional<uint64_t> latest = 0;
  if (rule.inKernel()) latest = of(counts.uses);
  if (latest && rule.earlierUses) status.uses = *rule.earlierUses + *latest;
  return ruleRecord(id, rule, status);
}

std::optional<Endpoint> NatRules::udpClient(const Endpoint& external, Ipv4Address remote) const {
  const Rule* const rule = openUdpRule(external);
  if (rule == nullptr || !rule->admits(remote)) return std::nullopt;
  return rule->client;
}

bool NatRules::isUdpOpen(const Endpoint& external) const {
  return openUdpRule(external) != nullptr;
}

const Rule* NatRules::openUdpRule(const Endpoint& external) const {
  const Rule* const rule = table_.find(RuleKey{.external = external, .protocol = IPPROTO_UDP});
  return rule == nullptr || !rule->inKernel() ? nullptr : rule;
}

}  // namespace lumen
