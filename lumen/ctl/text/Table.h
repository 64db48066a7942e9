#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "lumen/ctl/screen/Colours.h"

namespace lumenctl {

/// Rows of text in aligned columns under headings. Cells are made printable here, not by
/// callers.
class Table {
 public:
  struct Cell {
    Cell(std::string t, Colour c = Colour::none) : text(std::move(t)), colour(c) {}
    Cell(const char* t) : text(t) {}
    Cell(const StateWord& word) : text(word.text), colour(word.colour) {}

    std::string text;
    Colour colour = Colour::none;
  };

  /// A heading that begins with '>' makes a column of numbers, set to the right.
  explicit Table(std::vector<std::string> headings);

  /// `cells` has as many cells as there are headings.
  void add(std::vector<Cell> cells);

  /// Its lines, without blanks at their end and cut to `width` columns. None when there are no
  /// rows.
  [[nodiscard]] std::vector<std::string> lines(bool colours,
                                               size_t width = std::string::npos) const;

  [[nodiscard]] bool empty() const { return rows_.size() == 1; }

 private:
  std::vector<bool> toTheRight_;         // by column
  std::vector<std::vector<Cell>> rows_;  // the headings first
};

}  // namespace lumenctl
