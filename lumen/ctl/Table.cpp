#include "lumen/ctl/Table.h"

#include <algorithm>
#include <ostream>

#include "lumen/ctl/Text.h"

namespace lumenctl {

Table::Table(std::vector<std::string> headings) {
  for (std::string& heading : headings) {
    toTheRight_.push_back(heading.starts_with('>'));
    if (toTheRight_.back()) heading.erase(0, 1);
  }
  rows_.push_back(std::move(headings));
}

void Table::add(std::vector<std::string> cells) {
  cells.resize(toTheRight_.size());
  for (std::string& cell : cells) cell = printable(cell);
  rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out, const std::string& indent) const {
  if (empty()) return;
  std::vector<size_t> widths(toTheRight_.size());
  for (const auto& row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columns(row[i]));
  }
  for (const auto& row : rows_) {
    std::string line = indent;
    for (size_t i = 0; i < row.size(); ++i) {
      if (i > 0) line += "  ";
      const std::string padding(widths[i] - columns(row[i]), ' ');
      line += toTheRight_[i] ? padding + row[i] : row[i] + padding;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
  }
}

}  // namespace lumenctl
