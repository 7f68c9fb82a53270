#include "common/text_table.h"

#include <algorithm>
#include <utility>

#include "common/terminal_text.h"

namespace programs {

namespace {

constexpr std::size_t kGap = 2;

// Characters of a text in UTF-8: every byte that does not continue one.
std::size_t characters(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }));
}

}  // namespace

TextTable::TextTable(std::vector<std::string> header) : isRight_(header.size()) {
  rows_.push_back(std::move(header));
}

void TextTable::addRow(const std::vector<std::string>& cells) {
  std::vector<std::string> row;
  row.reserve(cells.size());
  for (const std::string& cell : cells) row.push_back(escapedForTerminal(cell));
  row.resize(isRight_.size());
  rows_.push_back(std::move(row));
}

std::string TextTable::text() const {
  std::vector<std::size_t> widths(rows_.front().size());
  for (const auto& row : rows_)
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], characters(row[i]));

  std::string result;
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string padding(widths[i] - characters(row[i]), ' ');
      result += isRight_[i] ? padding + row[i] : row[i] + padding;
      result.append(kGap, ' ');
    }
    result.erase(result.find_last_not_of(' ') + 1);
    result += '\n';
  }
  return result;
}

}  // namespace programs
