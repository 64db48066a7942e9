#include "lumen/ctl/status/StatusPicture.h"

#include <algorithm>
#include <array>

#include "lumen/ctl/router/Ports.h"
#include "lumen/ctl/screen/Colours.h"
#include "lumen/ctl/text/Table.h"
#include "lumen/ctl/text/Text.h"

namespace lumenctl {

namespace {

constexpr size_t widestGraph = 30;
constexpr size_t narrowestGraph = 4;

using Rates = std::deque<Traffic::Rate>;

/// One character for each of the newest rates, as high as its part of `top`.
std::string graph(const Rates& rates, uint64_t Traffic::Rate::*direction, uint64_t top,
                  size_t width, bool utf8) {
  using Levels = std::array<const char*, 9>;
  constexpr Levels blocks = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  constexpr Levels signs = {" ", ".", ":", "-", "=", "+", "*", "#", "@"};
  const Levels& levels = utf8 ? blocks : signs;
  const size_t shown = std::min(width, rates.size());
  std::string text(width - shown, ' ');
  for (auto rate = rates.end() - static_cast<ptrdiff_t>(shown); rate != rates.end(); ++rate) {
    const double part = static_cast<double>((*rate).*direction) / static_cast<double>(top);
    const bool none = (*rate).*direction == 0;
    text += levels.at(none ? 0 : 1 + std::min<size_t>(static_cast<size_t>(part * 8), 7));
  }
  return text;
}

/// The highest rate in either direction, so that the two graphs can be compared; not 0.
uint64_t highest(const Rates& rates, size_t width) {
  uint64_t top = 1;
  const size_t shown = std::min(width, rates.size());
  for (auto rate = rates.end() - static_cast<ptrdiff_t>(shown); rate != rates.end(); ++rate) {
    top = std::max({top, rate->received, rate->sent});
  }
  return top;
}

/// With graphs of `width` columns; 0: without.
Table interfaceTable(const Status& status, const std::map<uint32_t, Traffic>& traffic, size_t width,
                     bool utf8) {
  Table table({"INTERFACE", "ROLE", "STATE", "ADDRESS", ">RECEIVED/S", "", ">SENT/S", ""});
  for (const UsedInterface& used : status.interfaces) {
    std::vector<Table::Cell> row = {used.interface.name, roleText(used),
                                    wordFor(used.interface.state()),
                                    joined(textsOf(used.addresses))};
    const auto it = traffic.find(used.interface.id);
    if (it != traffic.end() && !it->second.rates().empty()) {
      const Rates& rates = it->second.rates();
      const uint64_t top = highest(rates, width);
      row.emplace_back(amount(rates.back().received));
      row.emplace_back(graph(rates, &Traffic::Rate::received, top, width, utf8));
      row.emplace_back(amount(rates.back().sent));
      row.emplace_back(graph(rates, &Traffic::Rate::sent, top, width, utf8));
    }
    table.add(row);
  }
  return table;
}

/// As wide as the rest of the table leaves room for.
size_t graphWidth(const Status& status, const std::map<uint32_t, Traffic>& traffic, size_t width) {
  size_t used = 0;
  for (const std::string& line : interfaceTable(status, traffic, 0, false).lines(false)) {
    used = std::max(used, columns(line));
  }
  const size_t gaps = 4;  // beside the second graph; the first has its own in the table
  if (used + gaps >= width) return 0;
  const size_t each = (width - used - gaps) / 2;
  return each < narrowestGraph ? 0 : std::min(each, widestGraph);
}

std::string headLine(const Status& status, const Look& look) {
  const std::string begin = "Gateway: ";
  const std::string end = status.detail.empty() ? "" : " (" + printable(status.detail) + ")";
  const std::string hint = "q ends";
  const size_t width = look.size.width;
  const StateWord gateway = wordFor(status.gateway);
  const std::string plain = begin + gateway.text + end;
  if (columns(plain) > width) return cut(plain, width);
  std::string line =
      begin + (look.colours ? coloured(gateway.text, gateway.colour) : gateway.text) + end;
  if (columns(plain) + 2 + hint.size() <= width) {
    line += std::string(width - columns(plain) - hint.size(), ' ') + hint;
  }
  return line;
}

void append(std::vector<std::string>& lines, const std::vector<std::string>& more) {
  lines.insert(lines.end(), more.begin(), more.end());
}

}  // namespace

std::vector<std::string> picture(const Status& status, const std::map<uint32_t, Traffic>& traffic,
                                 const Look& look) {
  const auto [width, height] = look.size;
  std::vector<std::string> lines = {headLine(status, look), ""};
  if (status.interfaces.empty()) {
    lines.push_back(cut(noInterfaceText, width));
  } else {
    const size_t graphs = graphWidth(status, traffic, width);
    append(lines, interfaceTable(status, traffic, graphs, look.utf8).lines(look.colours, width));
  }
  lines.emplace_back();
  if (status.rules.empty()) {
    lines.push_back(cut(noPortText, width));
  } else {
    append(lines, portsAsTable(status.rules).lines(look.colours, width));
  }
  if (!status.pinholes.empty()) {
    lines.emplace_back();
    append(lines, pinholesAsTable(status.pinholes).lines(look.colours, width));
  }
  if (!status.refusals.empty()) lines.emplace_back();
  for (const PortEvent& refusal : status.refusals) {
    lines.push_back(cut(refusalText(refusal), width));
  }
  if (lines.size() > height) {
    const size_t left = lines.size() - height + 1;
    lines.resize(height);
    if (height > 0) lines.back() = cut("and " + std::to_string(left) + " more lines", width);
  }
  return lines;
}

}  // namespace lumenctl
