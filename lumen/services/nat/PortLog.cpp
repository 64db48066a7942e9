#include "lumen/services/nat/PortLog.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "lumen/runtime/Paging.h"
#include "lumen/runtime/Refusal.h"
#include "platform/Keys.h"

namespace lumen {

PortLog::Entries::Iterator PortLog::Entries::find(uint32_t id) {
  return std::ranges::lower_bound(values_, id, {}, &Value::first);
}

PortLog::Entries::ConstIterator PortLog::Entries::upper_bound(uint32_t id) const {
  return std::ranges::upper_bound(values_, id, {}, &Value::first);
}

PortLog::PortLog(Notifier& notifier, WallClock clock) : notifier_(notifier), clock_(clock) {}

PortLog::Time PortLog::systemTime() {
  return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

void PortLog::add(lm::nat::Event event, const Author& author, const RuleKey& key,
                  const Endpoint& client, std::string_view reason) {
  add(event, author, key, client, reason, std::nullopt);
}

void PortLog::add(lm::nat::Event event, const Author& author, const Ipv6Address& host,
                  uint8_t protocol, uint16_t port, std::string_view reason) {
  const RuleKey key = {.external = {.address = {}, .port = port}, .protocol = protocol};
  add(event, author, key, {}, reason, host);
}

void PortLog::add(lm::nat::Event event, const Author& author, const RuleKey& key,
                  const Endpoint& client, std::string_view reason,
                  std::optional<Ipv6Address> host) {
  const uint32_t id = nextId();
  Entry entry = {.time = clock_(),
                 .owner = &*owners_.emplace(author.name.substr(0, longestOwner)).first,
                 .extra = nullptr,
                 .key = key,
                 .client = client,
                 .event = event,
                 .user = author.user};
  if (!reason.empty() || host) {
    entry.extra = std::make_unique<const Extra>(
        Extra{.reason = std::string(reason.substr(0, longestReason)), .host = host});
  }
  append(id, std::move(entry));
  if (entries_.size() > capacity) dropOne();
  lm::message news;
  news.insert_message_array(lm::key::records, {record(id, entries_.newest())});
  notifier_.notify(lm::cmd::changed, lm::nat::logPath(), news);
}

void PortLog::addRefusalOfOwnPort(const Author& author, const RuleKey& key, const Endpoint& client,
                                  std::string_view reason) {
  add(lm::nat::Event::refused, author, key, client, reason);
  std::erase_if(ownPorts_, [&](const auto& known) { return known.first == key; });
  if (ownPorts_.size() == newestOwn) ownPorts_.erase(ownPorts_.begin());
  ownPorts_.emplace_back(key, record(lastId_, entries_.newest()));
}

lm::message PortLog::handle(const Caller& caller, uint32_t command, const lm::message& request) {
  if (!caller.mayRead()) return lm::refusal("not permitted");
  if (command == lm::cmd::get) {
    std::vector<lm::message> records;
    for (const auto& [key, news] : ownPorts_) records.push_back(news);
    lm::message answer;
    answer.insert_message_array(lm::key::records, std::move(records));
    return answer;
  }
  if (command != lm::cmd::list && command != lm::cmd::readAll) {
    return lm::refusal("unknown command");
  }
  return lm::pagedAnswer(request, entries_, record);
}

// Pages need ids that rise: when there is no higher one, all begin again.
uint32_t PortLog::nextId() {
  if (lastId_ < lm::none - 1) return ++lastId_;
  Entries old = std::exchange(entries_, {});
  groups_.clear();
  ranks_.clear();
  lastId_ = 0;
  for (auto& [id, entry] : old) {
    entry.next = 0;
    append(++lastId_, std::move(entry));
  }
  return ++lastId_;
}

void PortLog::append(uint32_t id, Entry entry) {
  Group& group = groups_[groupOf(entry)];
  if (group.size == 0) {
    group.first = id;
  } else {
    ranks_.erase(group.rank());
    entries_.find(group.last)->second.next = id;
  }
  group.last = id;
  ++group.size;
  ranks_.insert(group.rank());
  entries_.append(id, std::move(entry));
}

void PortLog::dropOne() {
  const auto largest = std::prev(ranks_.end());
  const auto oldest = entries_.find(~largest->second);
  const auto group = groups_.find(groupOf(oldest->second));
  ranks_.erase(largest);
  group->second.first = oldest->second.next;
  entries_.erase(oldest);
  if (--group->second.size == 0) {
    groups_.erase(group);
  } else {
    ranks_.insert(group->second.rank());
  }
}

Ipv6Address PortLog::groupOf(const Entry& entry) {
  constexpr unsigned lanPrefix = 64;  // RFC 7421
  if (entry.event == lm::nat::Event::refused) return {};
  if (entry.extra && entry.extra->host) return Ipv6Network(*entry.extra->host, lanPrefix).first();
  const uint32_t client = entry.client.address.number();
  const auto byte = [client](unsigned shift) { return static_cast<uint8_t>(client >> shift); };
  return Ipv6Address(
      {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, byte(24), byte(16), byte(8), byte(0)});
}

lm::message PortLog::record(uint32_t id, const Entry& entry) {
  lm::message m;
  lm::nat::write(
      m, lm::nat::LogRecord{
             .id = id,
             .event = static_cast<uint32_t>(entry.event),
             .time = static_cast<uint64_t>(entry.time.time_since_epoch().count()),
             .owner = *entry.owner,
             .user = entry.user,
             .protocol = entry.key.protocol,
             .address = entry.key.external.address.bytes(),
             .port = entry.key.external.port,
             .client = entry.client.address.bytes(),
             .clientPort = entry.client.port,
             .reason = entry.extra ? entry.extra->reason : "",
             .host = entry.extra && entry.extra->host ? entry.extra->host->text() : std::string()});
  return m;
}

}  // namespace lumen
