// Text for a terminal: tables with aligned columns, and values from outside made harmless.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace programs {

// Printable on a terminal: control characters, the two-byte ones of UTF-8 included, and bytes that are no
// text in UTF-8 become \n, \t or \xHH, and a backslash \\.
std::string escapedForTerminal(std::string_view text);

// Collects rows and lays them out. Cells are escaped; the last column is not padded.
class TextTable {
 public:
  explicit TextTable(std::vector<std::string> header);

  void addRow(const std::vector<std::string>& cells);

  // Header and rows, one line each.
  std::string text() const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace programs
