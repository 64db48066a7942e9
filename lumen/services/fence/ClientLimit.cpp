#include "lumen/services/fence/ClientLimit.h"

#include <string>

#include "lumen/runtime/Log.h"

namespace lumen {

namespace {

// The daemon's queue holds one client, and who finds it full tries again after a second. So a host
// that connects without pause is slowed: what is dropped is its own, and it tries again, too.
//
// Connections that both sides have closed are not counted, but the kernel clears them from its
// count only once a tick, nine at a time: a program that lists a thousand ports one by one is
// faster. So a host may have a thousand connections beyond the limit, one by one, and then ten more
// each second.
//
// An address that finds a set full is not limited: it must not take memory without end either.
constexpr const char* table =
    "create table ip lumen_clients { flags owner; }\n"
    "table ip lumen_clients {\n"
    "\tflags owner\n"
    "\tset paces {\n"
    "\t\ttype ipv4_addr\n"
    "\t\tsize 1024\n"
    "\t\tflags dynamic\n"
    "\t}\n"
    "\tset addresses {\n"
    "\t\ttype ipv4_addr\n"
    "\t\tsize 1024\n"
    "\t\tflags dynamic\n"
    "\t}\n"
    "\tset crowds {\n"
    "\t\ttype ipv4_addr\n"
    "\t\tsize 1024\n"
    "\t\tflags dynamic\n"
    "\t}\n"
    "\tset bursts {\n"
    "\t\ttype ipv4_addr\n"
    "\t\tsize 1024\n"
    "\t\tflags dynamic\n"
    "\t}\n"
    "\tchain new {\n"
    "\t\tadd @paces { ip saddr limit rate over 500/second burst 1000 packets } counter drop\n"
    "\t\tadd @addresses { ip saddr ct count over 32 } goto beyond\n"
    "\t}\n"
    "\tchain beyond {\n"
    "\t\tadd @crowds { ip saddr limit rate over 10000/second burst 2 packets } counter drop\n"
    "\t\tadd @bursts { ip saddr limit rate over 10/second burst 1000 packets } counter "
    "reject with tcp reset\n"
    "\t}\n"
    "\tchain input {\n"
    "\t\ttype filter hook input priority filter; policy accept;\n"
    "\t\ttcp dport 2828 ct state new goto new\n"
    "\t}\n"
    "}\n";

}  // namespace

void ClientLimit::open() {
  const auto made = nftables_.run(table);
  open_ = made.ok();
  if (open_) return;
  lm::logLine("the kernel does not limit the connections of a host: ",
              made.why().substr(0, made.why().find('\n')));
}

void ClientLimit::tablesRead(const LinkSnapshot& /*all*/) { countAgain(); }

void ClientLimit::linkChanged(const Link& link) {
  if (!link.running) countAgain();
}

void ClientLimit::linkGone(uint32_t /*index*/) { countAgain(); }

void ClientLimit::addressAdded(uint32_t /*index*/, const LinkAddress& /*address*/) {}

void ClientLimit::addressRemoved(uint32_t /*index*/, const LinkAddress& /*address*/) {
  countAgain();
}

void ClientLimit::countAgain() {
  // A refusal leaves the limit stricter for a while, and is no harm.
  if (open_) (void)nftables_.run("flush set ip lumen_clients addresses\n");
}

}  // namespace lumen
