#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Keys.h"
#include "platform/message.h"

/// Field keys of the NAT rule table, handler [20, 5], in addition to the shared ones.
///
/// Commands: lm::cmd::addObject, setObject and removeObject for the owner of a rule; for an
/// administrator also list (paged, also as readAll), readObject, and get and set (the policy); a
/// service that may read has all of these but set. Only dynamic rules exist: a rule ends with the
/// connection that added it, if not before.
///
/// `findOther` tells a service whose file grants it ports by which port a client's port is open
/// already: with addressFirst, protocol, clientFirst and clientPortFirst, the reply has portFirst
/// of an open rule without remote networks that another service or the administrator added; 0:
/// there is none.
///
/// lm::cmd::changed notifies those who may list of each rule that was opened, changed or closed, as
/// the record of lm::key::records, without the numbers of connections; that of a rule which has
/// left the table says so with lm::key::removed.
///
/// An administrator closes a port with lm::cmd::setObject on the rule's id with bool `closed` true
/// and no other field: the rule leaves the kernel but stays listed until its owner removes it.
/// Closing cannot be undone. The list gives the port and protocol of each rule; with two external
/// addresses, one port and protocol can have two rules, each with its own id.
///
/// A service whose file grants it ports may subscribe to lm::cmd::changed without being a reader.
/// It is notified of its own rules only, and only of those that lumend ended: of a rule that has
/// left the table with the record, lm::key::removed and `ended`; of one that the administrator has
/// closed, which stays listed, with the record and `ended`. When the administrator's program gave
/// up its request to close, the rule is open again: the owner is notified of that with the record
/// alone.
///
/// The fields of a rule from `lease` on are optional: an add without them asks for a permanent rule
/// at exactly that port, for packets from anywhere.
///
/// What happened to ports is recorded at handler [20, 6], for administrators and services that may
/// read: list (paged,
/// also as readAll) gives the events in the order in which they happened, and lm::cmd::changed
/// notifies each new one as the record of lm::key::records. lm::cmd::get gives there the newest
/// refusals at ports where programs of the router listen: one for each of the last five ports.
namespace lm::nat {

namespace key {
// A rule, in the order of a record. Ports and addresses are ranges whose ends must be equal.
inline constexpr uint32_t chain = 0x20000027;             ///< string "dstnat"
inline constexpr uint32_t matchAddress = 0x000001a3;      ///< bool true
inline constexpr uint32_t addressFirst = 0x08000034;      ///< be32: external address
inline constexpr uint32_t addressLast = 0x08000035;       ///< be32
inline constexpr uint32_t matchPort = 0x00000196;         ///< bool true
inline constexpr uint32_t portFirst = 0x08000009;         ///< u32: external port, 1 to 65535
inline constexpr uint32_t portLast = 0x0800000a;          ///< u32
inline constexpr uint32_t matchProtocol = 0x00000194;     ///< bool true
inline constexpr uint32_t protocol = 0x0800000b;          ///< u32: 6 TCP, 17 UDP
inline constexpr uint32_t action = 0x08000028;            ///< u32: actionDnat
inline constexpr uint32_t translateAddress = 0x000003ee;  ///< bool true
inline constexpr uint32_t clientFirst = 0x080003e8;       ///< be32: internal client
inline constexpr uint32_t clientLast = 0x080003e9;        ///< be32
inline constexpr uint32_t translatePort = 0x000003ef;     ///< bool true
inline constexpr uint32_t clientPortFirst = 0x080003ea;   ///< u32: internal port, 1 to 65535
inline constexpr uint32_t clientPortLast = 0x080003eb;    ///< u32

// Of a rule, after these, each only where it says something.
/// u32, not 0: how many seconds the rule lives from now; absent: until its owner removes it. In a
/// set request it renews the lease, in a record it is what is left.
inline constexpr uint32_t lease = 0x08010050;
/// bool, in an add request only: portFirst and portLast are a wish, 0 for none. When that port is
/// not free or not allowed, the rule gets another one.
inline constexpr uint32_t anyPort = 0x00010051;
// Only packets from these networks pass: as many of each, at most mostRemotes. Absent: from
// anywhere. In a set request they replace those of the rule, and none lets packets from anywhere
// pass.
inline constexpr uint32_t remoteNetworks = 0x88010052;  ///< u32 array: the numbers of be32
inline constexpr uint32_t remotePrefixes = 0x88010053;  ///< u32 array: 1 to 32 each

// The reply to an add request has the rule's id, and for one with anyPort portFirst: the external
// port that it became.

// The refusal of a change, beside the error.
inline constexpr uint32_t refusal = 0x08010054;  ///< u32: a value of Refusal
inline constexpr uint32_t holder = 0x08010055;   ///< u32, with Refusal::conflict: a value of Holder

/// u32, in the notification of a rule that lumend ended: a value of End.
inline constexpr uint32_t ended = 0x08010056;

// A record's additional fields, after the rule's id.
inline constexpr uint32_t owner = 0x20010020;    ///< string: service name
inline constexpr uint32_t seconds = 0x10010021;  ///< u64: since the rule was added
/// u64: current TCP or UDP flows through it; absent when not all could be counted.
inline constexpr uint32_t connections = 0x10010022;
inline constexpr uint32_t stale = 0x00010023;   ///< bool: external address has left the router
inline constexpr uint32_t closed = 0x00010024;  ///< bool: closed by the administrator
/// u64: flows through it since the rule was added; absent when the kernel does not report them.
inline constexpr uint32_t uses = 0x10010025;

// The policy (get and set). A write changes the fields it contains; they override the file.
inline constexpr uint32_t externalPorts = 0x20010030;      ///< string, as in the policy file
inline constexpr uint32_t internalClients = 0x20010031;    ///< string, as in the policy file
inline constexpr uint32_t maxRules = 0x08010032;           ///< u32
inline constexpr uint32_t maxRulesPerClient = 0x08010033;  ///< u32
/// bool, in a write only: first discards earlier writes, so that the file applies again.
inline constexpr uint32_t reset = 0x00010034;
/// bool, in a write only: first reads the file again; an error in the file changes nothing.
inline constexpr uint32_t reload = 0x00010035;
inline constexpr uint32_t routerPorts = 0x20010036;    ///< string, as in the policy file
inline constexpr uint32_t internalPorts = 0x20010037;  ///< string, as in the policy file
/// bool, in an answer only: rules may name remote networks, since the ruleset file has a map for
/// them.
inline constexpr uint32_t remotesPossible = 0x00010038;

// An event, beside fields of a rule: protocol, addressFirst, portFirst, clientFirst,
// clientPortFirst and owner. Of a pinhole there are host, protocol, portFirst and owner.
inline constexpr uint32_t event = 0x08010040;  ///< u32: a value of Event
inline constexpr uint32_t time = 0x10010041;   ///< u64: milliseconds since 1970
inline constexpr uint32_t user = 0x08010042;   ///< u32: the user whose program asked for it
inline constexpr uint32_t reason =
    0x20010043;                               ///< string: why; absent when there is nothing to say
inline constexpr uint32_t host = 0x20010044;  ///< string: "2001:db8::10"; absent of a rule
}  // namespace key

/// The command that asks for a rule of others.
inline constexpr uint32_t findOther = 0x10006;

/// What happened to a port.
enum class Event : uint32_t { opened = 1, changed = 2, closed = 3, refused = 4 };

/// Why a change was refused.
enum class Refusal : uint32_t {
  other = 1,
  conflict = 2,  ///< the port is taken
  policy = 3,    ///< the policy forbids the client or the change, or the router lacks the address
  full = 4,      ///< the client, the service or all together have as many rules as they may have
  rights = 5,    ///< the service's file does not grant it
  port = 6,      ///< the policy forbids that port; another one may do
};

/// Who has a port that is taken.
enum class Holder : uint32_t { otherService = 1, sameService = 2, administrator = 3, router = 4 };

/// Why lumend ended a rule.
enum class End : uint32_t { lease = 1, administrator = 2 };

/// The action of every rule: translate the destination.
inline constexpr uint32_t actionDnat = 22;

/// The chain of every rule.
inline constexpr const char* chainDstnat = "dstnat";

/// The path of the record of events.
inline std::vector<uint32_t> logPath() { return {service::interfaces, handler::portLog}; }

/// The path of the table.
inline std::vector<uint32_t> path() { return {service::interfaces, handler::natRules}; }

/// How many remote networks a rule can name.
inline constexpr size_t mostRemotes = 8;

/// A network from which the packets of a rule may come.
struct RemoteNetwork {
  uint32_t address = 0;  ///< in network byte order
  uint32_t prefix = 0;

  bool operator==(const RemoteNetwork&) const = default;
};

/// What an add request asks for. Addresses are in network byte order; ports and the protocol have
/// the width of their fields, so that a reader sees a number that is too large.
struct Rule {
  bool disabled = false;
  uint32_t address = 0;  ///< external
  uint32_t port = 0;     ///< external
  uint32_t protocol = 0;
  uint32_t client = 0;
  uint32_t clientPort = 0;
  std::optional<uint32_t> lease = std::nullopt;  ///< in seconds; none: permanent
  bool anyPort = false;                          ///< in a request only
  std::vector<RemoteNetwork> remotes{};          ///< none: anywhere

  bool operator==(const Rule&) const = default;
};

/// A rule as it is listed.
struct Record {
  Rule rule;
  uint32_t id = 0;
  std::string owner;
  uint64_t seconds = 0;
  std::optional<uint64_t> connections = std::nullopt;  ///< none: not known
  bool stale = false;
  bool closed = false;
  std::optional<uint64_t> uses = std::nullopt;  ///< none: not known
  std::optional<End> ended = std::nullopt;      ///< in a notification only

  bool operator==(const Record&) const = default;
};

/// What a refusal says beside its text.
struct Denial {
  Refusal why = Refusal::other;
  std::optional<Holder> holder = std::nullopt;  ///< of a port that is taken

  bool operator==(const Denial&) const = default;
};

/// The value of a field of type u32; none when it is absent.
inline std::optional<uint32_t> numberIfPresent(const message& m, uint32_t field) {
  const uint32_t number = m.get_u32(field, 0);
  // An absent field is whatever the caller takes for it.
  return number == m.get_u32(field, 1) ? std::optional(number) : std::nullopt;
}

/// Appends the networks, or their absence.
inline void writeRemotes(message& m, const std::vector<RemoteNetwork>& remotes) {
  std::vector<uint32_t> addresses;
  std::vector<uint32_t> prefixes;
  for (const RemoteNetwork& remote : remotes) {
    addresses.push_back(ntohl(remote.address));
    prefixes.push_back(remote.prefix);
  }
  m.insert_u32_array(key::remoteNetworks, std::move(addresses));
  m.insert_u32_array(key::remotePrefixes, std::move(prefixes));
}

/// Of networks of which one field is missing, 0 stands for it.
inline std::vector<RemoteNetwork> readRemotes(const message& m) {
  const std::vector<uint32_t>& addresses = m.get_u32_array_ref(key::remoteNetworks);
  const std::vector<uint32_t>& prefixes = m.get_u32_array_ref(key::remotePrefixes);
  std::vector<RemoteNetwork> remotes(std::max(addresses.size(), prefixes.size()));
  for (size_t i = 0; i < addresses.size(); ++i) remotes[i].address = htonl(addresses[i]);
  for (size_t i = 0; i < prefixes.size(); ++i) remotes[i].prefix = prefixes[i];
  return remotes;
}

/// Appends the fields of an add request in their order.
inline void write(message& m, const Rule& rule) {
  m.insert_bool(lm::key::dynamic, true);
  m.insert_bool(lm::key::disabled, rule.disabled);
  m.insert_string(key::chain, chainDstnat);
  m.insert_bool(key::matchAddress, true);
  m.insert_be32(key::addressFirst, rule.address);
  m.insert_be32(key::addressLast, rule.address);
  m.insert_bool(key::matchPort, true);
  m.insert_u32(key::portFirst, rule.port);
  m.insert_u32(key::portLast, rule.port);
  m.insert_bool(key::matchProtocol, true);
  m.insert_u32(key::protocol, rule.protocol);
  m.insert_u32(key::action, actionDnat);
  m.insert_bool(key::translateAddress, true);
  m.insert_be32(key::clientFirst, rule.client);
  m.insert_be32(key::clientLast, rule.client);
  m.insert_bool(key::translatePort, true);
  m.insert_u32(key::clientPortFirst, rule.clientPort);
  m.insert_u32(key::clientPortLast, rule.clientPort);
  if (rule.lease) m.insert_u32(key::lease, *rule.lease);
  if (rule.anyPort) m.insert_bool(key::anyPort, true);
  if (!rule.remotes.empty()) writeRemotes(m, rule.remotes);
}

/// Of a range its first end. A field that is absent is 0 or false.
inline Rule readRule(const message& m) {
  return {.disabled = m.get_bool(lm::key::disabled),
          .address = m.get_be32(key::addressFirst),
          .port = m.get_u32(key::portFirst),
          .protocol = m.get_u32(key::protocol),
          .client = m.get_be32(key::clientFirst),
          .clientPort = m.get_u32(key::clientPortFirst),
          .lease = numberIfPresent(m, key::lease),
          .anyPort = m.get_bool(key::anyPort),
          .remotes = readRemotes(m)};
}

/// Appends the fields of the add request, then the others.
inline void write(message& m, const Record& record) {
  write(m, record.rule);
  m.insert_u32(lm::key::objectId, record.id);
  m.insert_string(key::owner, record.owner);
  m.insert_u64(key::seconds, record.seconds);
  if (record.connections) m.insert_u64(key::connections, *record.connections);
  m.insert_bool(key::stale, record.stale);
  m.insert_bool(key::closed, record.closed);
  if (record.uses) m.insert_u64(key::uses, *record.uses);
  if (record.ended) m.insert_u32(key::ended, static_cast<uint32_t>(*record.ended));
}

/// An end with a number that is not known counts as none.
inline Record readRecord(const message& m) {
  const auto longIfPresent = [&m](uint32_t field) -> std::optional<uint64_t> {
    const uint64_t number = m.get_u64(field, 0);
    // An absent field is whatever the caller takes for it.
    return number == m.get_u64(field, 1) ? std::optional(number) : std::nullopt;
  };
  const uint32_t ended = m.get_u32(key::ended);
  const bool isEnd = ended >= static_cast<uint32_t>(End::lease) &&
                     ended <= static_cast<uint32_t>(End::administrator);
  return {.rule = readRule(m),
          .id = m.get_u32(lm::key::objectId),
          .owner = m.get_string(key::owner),
          .seconds = m.get_u64(key::seconds),
          .connections = longIfPresent(key::connections),
          .stale = m.get_bool(key::stale),
          .closed = m.get_bool(key::closed),
          .uses = longIfPresent(key::uses),
          .ended = isEnd ? std::optional(static_cast<End>(ended)) : std::nullopt};
}

/// Appends them to an error reply.
inline void write(message& m, const Denial& denial) {
  m.insert_u32(key::refusal, static_cast<uint32_t>(denial.why));
  if (denial.holder) m.insert_u32(key::holder, static_cast<uint32_t>(*denial.holder));
}

/// A reason that is absent or not known is Refusal::other, such a holder none.
inline Denial readDenial(const message& m) {
  const uint32_t why = m.get_u32(key::refusal);
  const uint32_t holder = m.get_u32(key::holder);
  const bool isReason =
      why >= static_cast<uint32_t>(Refusal::other) && why <= static_cast<uint32_t>(Refusal::port);
  const bool isHolder = holder >= static_cast<uint32_t>(Holder::otherService) &&
                        holder <= static_cast<uint32_t>(Holder::router);
  return {.why = isReason ? static_cast<Refusal>(why) : Refusal::other,
          .holder = isHolder ? std::optional(static_cast<Holder>(holder)) : std::nullopt};
}

/// An event of the record. Of a request that says no valid rule, ports and protocol may be 0. Of a
/// pinhole the address, the client and its port are 0.
struct LogRecord {
  uint32_t id = 0;  ///< rises
  uint32_t event = 0;
  uint64_t time = 0;    ///< milliseconds since 1970
  std::string owner{};  ///< the service that asked, or "administrator"
  uint32_t user = 0;    ///< of its process
  uint32_t protocol = 0;
  uint32_t address = 0;  ///< external; addresses are in network byte order
  uint32_t port = 0;     ///< external
  uint32_t client = 0;
  uint32_t clientPort = 0;
  std::string reason{};
  std::string host{};  ///< of a pinhole: its IPv6 address

  bool operator==(const LogRecord&) const = default;
};

inline void write(message& m, const LogRecord& record) {
  m.insert_u32(lm::key::objectId, record.id);
  m.insert_u32(key::event, record.event);
  m.insert_u64(key::time, record.time);
  m.insert_string(key::owner, record.owner);
  m.insert_u32(key::user, record.user);
  m.insert_u32(key::protocol, record.protocol);
  if (record.host.empty()) {
    m.insert_be32(key::addressFirst, record.address);
    m.insert_u32(key::portFirst, record.port);
    m.insert_be32(key::clientFirst, record.client);
    m.insert_u32(key::clientPortFirst, record.clientPort);
  } else {
    m.insert_string(key::host, record.host);
    m.insert_u32(key::portFirst, record.port);
  }
  if (!record.reason.empty()) m.insert_string(key::reason, record.reason);
}

/// A field that is absent is 0 or empty.
inline LogRecord readLogRecord(const message& m) {
  return {.id = m.get_u32(lm::key::objectId),
          .event = m.get_u32(key::event),
          .time = m.get_u64(key::time),
          .owner = m.get_string(key::owner),
          .user = m.get_u32(key::user),
          .protocol = m.get_u32(key::protocol),
          .address = m.get_be32(key::addressFirst),
          .port = m.get_u32(key::portFirst),
          .client = m.get_be32(key::clientFirst),
          .clientPort = m.get_u32(key::clientPortFirst),
          .reason = m.get_string(key::reason),
          .host = m.get_string(key::host)};
}

}  // namespace lm::nat
