#pragma once

#include <cstdint>
#include <vector>

#include "platform/Keys.h"

/// Field keys of the NAT rule table, handler [20, 5], besides those that every table shares.
///
/// Commands: lm::cmd::addObject, setObject and removeObject for the owner of a rule; for an
/// administrator also list (paged, also as readAll), readObject, get and set (the policy). Only
/// dynamic rules exist: a rule ends with the connection that added it.
///
/// An administrator closes a port with lm::cmd::setObject on the rule's id with bool `closed` true
/// and nothing else: the rule leaves the kernel and stays listed until its owner removes it. There
/// is no way back. A port and protocol are found in the list; two external addresses of the router
/// give two rules, with an id each.
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

// What a record adds, after the rule's id.
inline constexpr uint32_t owner = 0x20010020;    ///< string: service name
inline constexpr uint32_t seconds = 0x10010021;  ///< u64: since the rule was added
/// u64: flows of TCP or UDP through it now; absent when not all could be counted.
inline constexpr uint32_t connections = 0x10010022;
inline constexpr uint32_t stale = 0x00010023;   ///< bool: external address has left the router
inline constexpr uint32_t closed = 0x00010024;  ///< bool: closed by the administrator
/// u64: flows that came through it since the rule was added; absent when the kernel does not tell.
inline constexpr uint32_t uses = 0x10010025;

// The policy (get and set). A write changes the fields that it has; they win over the file.
inline constexpr uint32_t externalPorts = 0x20010030;      ///< string, as in the policy file
inline constexpr uint32_t internalClients = 0x20010031;    ///< string, as in the policy file
inline constexpr uint32_t maxRules = 0x08010032;           ///< u32
inline constexpr uint32_t maxRulesPerClient = 0x08010033;  ///< u32
/// bool, in a write only: first forgets what was written before, so that the file counts again.
inline constexpr uint32_t reset = 0x00010034;
/// bool, in a write only: first reads the file again; when anything in it is wrong, nothing
/// changes.
inline constexpr uint32_t reload = 0x00010035;
}  // namespace key

/// The action of every rule: translate the destination.
inline constexpr uint32_t actionDnat = 22;

/// Where the table is.
inline std::vector<uint32_t> path() { return {service::interfaces, handler::natRules}; }

}  // namespace lm::nat
