#include "lumen/ctl/Table.h"

#include <algorithm>
#include <utility>

#include "lumen/ctl/Text.h"

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
    size_t used = 0;    // columns of the line
    size_t blanks = 0;  // that follow when something else does
    for (size_t i = 0; i < row.size(); ++i) {
      const size_t padding = widths[i] - columns(row[i].text);
      if (toTheRight_[i]) blanks += padding;
      if (used + blanks < width && !row[i].text.empty()) {
        const std::string text = cut(row[i].text, width - used - blanks);
        line += std::string(blanks, ' ') + (colours ? coloured(text, row[i].colour) : text);
        used += blanks + columns(text);
        blanks = 0;
      } else {
        blanks += columns(row[i].text);
      }
      if (!toTheRight_[i]) blanks += padding;
      blanks += 2;
    }
    result.push_back(std::move(line));
  }
  return result;
}

}  // namespace lumenctl
