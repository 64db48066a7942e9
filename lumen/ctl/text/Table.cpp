#include "lumen/ctl/text/Table.h"

#include <algorithm>
#include <utility>

#include "lumen/ctl/text/Text.h"

namespace lumenctl {

Table::Table(std::vector<std::string> headings) {
  std::vector<Cell> row;
  for (std::string& heading : headings) {
    toTheRight_.push_back(heading.starts_with('>'));
    if (toTheRight_.back()) heading.erase(0, 1);
    row.emplace_back(std::move(heading), Colour::heading);
  }
  rows_.push_back(std::move(row));
}

void Table::add(std::vector<Cell> cells) {
  cells.resize(toTheRight_.size(), "");
  for (Cell& cell : cells) cell.text = printable(cell.text);
  rows_.push_back(std::move(cells));
}

std::vector<std::string> Table::lines(bool colours, size_t width) const {
  std::vector<std::string> result;
  if (empty()) return result;
  std::vector<size_t> widths(toTheRight_.size());
  for (const auto& row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columns(row[i].text));
  }
  for (const auto& row : rows_) {
    std::string line;
    size_t used = 0;   // columns of the line
    size_t begin = 0;  // of the cell's column
    for (size_t i = 0; i < row.size(); ++i) {
      const std::string& cell = row[i].text;
      const size_t at = begin + (toTheRight_[i] ? widths[i] - columns(cell) : 0);
      begin += widths[i] + 2;
      const std::string text = cell.substr(0, cell.find_last_not_of(' ') + 1);
      if (text.empty() || at >= width) continue;
      const std::string shown = cut(text, width - at);
      line += std::string(at - used, ' ') + (colours ? coloured(shown, row[i].colour) : shown);
      used = at + columns(shown);
    }
    result.push_back(std::move(line));
  }
  return result;
}

}  // namespace lumenctl
