#include "lumen/services/fence/ClientLimit.h"

#include <string>

#include "lumen/runtime/Log.h"

namespace lumen {

namespace {

// Connections that both sides have closed are not counted. An address that finds the set full is
// not limited: it must not take memory without end either.
constexpr const char* table =
    "create table ip lumen_clients { flags owner; }\n"
    "table ip lumen_clients {\n"
    "\tflags owner\n"
    "\tset addresses {\n"
    "\t\ttype ipv4_addr\n"
    "\t\tsize 1024\n"
    "\t\tflags dynamic\n"
    "\t}\n"
    "\tchain input {\n"
    "\t\ttype filter hook input priority filter; policy accept;\n"
    "\t\ttcp dport 2828 ct state new add @addresses { ip saddr ct count over 32 } counter "
    "reject with tcp reset\n"
    "\t}\n"
    "}\n";

}  // namespace

void limitClients(Nftables& nftables) {
  const auto made = nftables.run(table);
  if (made) return;
  lm::logLine("the kernel does not limit the connections of a host: ",
              made.why().substr(0, made.why().find('\n')));
}

}  // namespace lumen
