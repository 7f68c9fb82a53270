// Tables with aligned columns, for a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace programs {

// Collects rows and lays them out. Cells are escaped; no line ends in blanks.
class TextTable {
 public:
  explicit TextTable(std::vector<std::string> header);

  // Of a column of the header, counted from 0: its cells end below each other, as numbers should.
  void alignRight(std::size_t column) { isRight_[column] = true; }

  // A cell for each column of the header.
  void addRow(const std::vector<std::string>& cells);

  // Header and rows, one line each.
  std::string text() const;

 private:
  std::vector<std::vector<std::string>> rows_;
  std::vector<bool> isRight_;  // for each column of the header
};

}  // namespace programs
