#include "lumen/ctl/router/PortEvent.h"

#include <netinet/in.h>

#include <array>
#include <utility>

#include "lumen/ctl/text/Text.h"
#include "platform/wire/NatRules.h"

namespace lumenctl {

namespace {

/// Of all columns but the last: what their longest usual text takes.
constexpr std::array<size_t, 6> widths = {19, 7, 9, 15, 21, 13};

std::string inColumns(const std::array<std::string, widths.size() + 1>& cells) {
  std::string line;
  for (size_t i = 0; i < widths.size(); ++i) {
    const std::string cell = printable(cells[i]);
    const size_t used = columns(cell);
    line += cell + std::string(used < widths[i] ? widths[i] - used : 0, ' ') + "  ";
  }
  line += printable(cells.back());
  return line.substr(0, line.find_last_not_of(' ') + 1);
}

lumen::Endpoint endpoint(uint32_t address, uint32_t port) {
  return {lumen::Ipv4Address::fromBytes(address), static_cast<uint16_t>(port)};
}

}  // namespace

PortEvent::PortEvent(const lm::message& m) {
  lm::nat::LogRecord record = lm::nat::readLogRecord(m);
  id = record.id;
  event = record.event;
  time = Time(std::chrono::milliseconds(record.time));
  external = endpoint(record.address, record.port);
  client = endpoint(record.client, record.clientPort);
  protocol = record.protocol;
  owner = std::move(record.owner);
  user = record.user;
  reason = std::move(record.reason);
  host = std::move(record.host);
}

std::string PortEvent::externalText() const {
  return host.empty() ? external.address.text() : std::string();
}

std::string PortEvent::clientText() const {
  return host.empty() ? client.text() : "[" + host + "]:" + std::to_string(external.port);
}

std::string PortEvent::name() const {
  switch (static_cast<lm::nat::Event>(event)) {
    case lm::nat::Event::opened:
      return "opened";
    case lm::nat::Event::changed:
      return "changed";
    case lm::nat::Event::closed:
      return "closed";
    case lm::nat::Event::refused:
      return "refused";
  }
  return std::to_string(event);
}

std::string PortEvent::protocolName() const {
  if (protocol == IPPROTO_TCP) return "tcp";
  if (protocol == IPPROTO_UDP) return "udp";
  return std::to_string(protocol);
}

std::string PortEvent::line(const std::string& userName) const {
  const std::string port = std::to_string(external.port) + "/" + protocolName();
  const std::string who = owner == "administrator" ? "administrator " + userName : owner;
  return inColumns({localTime(std::chrono::floor<std::chrono::seconds>(time)), name(), port,
                    host.empty() ? externalText() : "-", clientText(), who, reason});
}

std::string PortEvent::headings() {
  return inColumns({"WHEN", "EVENT", "PORT", "ON ADDRESS", "TO", "WHO", "WHY"});
}

}  // namespace lumenctl
