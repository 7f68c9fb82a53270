// Tables with aligned columns, for a terminal.
#pragma once

#include <string>
#include <vector>

namespace programs {

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
