#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace lumenctl {

/// Rows of text in aligned columns under headings. Cells are made printable here, so that callers
/// need not think of it.
class Table {
 public:
  /// A heading that begins with '>' makes a column of numbers, set to the right.
  explicit Table(std::vector<std::string> headings);

  /// `cells` has as many cells as there are headings.
  void add(std::vector<std::string> cells);

  /// Prints every line behind `indent`, without blanks at its end. A table without rows prints
  /// nothing.
  void print(std::ostream& out, const std::string& indent = {}) const;

  [[nodiscard]] bool empty() const { return rows_.size() == 1; }

 private:
  std::vector<bool> toTheRight_;                // by column
  std::vector<std::vector<std::string>> rows_;  // the headings first
};

}  // namespace lumenctl
